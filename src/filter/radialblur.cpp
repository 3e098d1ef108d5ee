// Zoom and spin blurs about a centre.
#include "imglib/radialblur.h"
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/error.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

class RadialBlur : public NeighbourhoodTask {
public:
    RadialBlur(const std::string& name, float time, const IMGLIB::RadialBlurParams& p,
               IMGLIB::ExtendMethod method, bool extendFlag, const UTIL::Rect& extendRect,
               TaskPtr input)
        : NeighbourhoodTask(name, time, "RadialBlur", std::move(input)), m_p(p) {
        setExtension(method, extendFlag, extendRect);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << int(m_p.type) << "," << m_p.centreX << "," << m_p.centreY << "," << m_p.amount << ","
          << m_p.samples;
    }
    UTIL::Region computeOutputDataRegion() override {
        UTIL::Region region;
        for (const UTIL::Rect& r : getDefinedInputDataRegion(0).rects()) {
            UTIL::Rect reached;
            IMGLIB::GetRadialBlurredOutputRect(r, reached, m_p);
            region.add(reached);
        }
        return region;
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.resize(1);
        IMGLIB::GetRadialBlurredRequiredInputRect(inputRects[0], outputRect, m_p);
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::RadialBlur(out, in[0], m_p));
    }

private:
    IMGLIB::RadialBlurParams m_p;
};

}  // namespace Private

namespace Private {
const Choices<IMGLIB::RadialBlurType> kRadialBlurTypes = {{"zoom", IMGLIB::RADIAL_ZOOM},
                                                          {"spin", IMGLIB::RADIAL_SPIN}};
}  // namespace Private

TaskPtr createRadialBlur(const std::string& name, float time,
                         const IMGLIB::RadialBlurParams& params, IMGLIB::ExtendMethod extendMethod,
                         bool extendFlag, const UTIL::Rect& extendRect, TaskPtr input) {
    Private::checkParameters(
        "radialblur", name,
        {{"type", Private::choiceValue(Private::kRadialBlurTypes, params.type)},
         {"centre", {params.centreX, params.centreY}},
         {"amount", params.amount},
         {"samples", params.samples},
         {"extend", Private::choiceValue(Private::extendChoices(), extendMethod)}});
    if (IMGLIB::ValidateRadialBlurParams(params) != IMGLIB::ERROR_NONE)
        throw UTIL::ErrorException(name + ": " + IMGLIB::GetErrorMessage());
    return TaskPtr(new Private::RadialBlur(name, time, params, extendMethod, extendFlag, extendRect,
                                           std::move(input)));
}

namespace Private {

void declareRadialBlurOperations(OperationList& ops) {
    ops.push_back(
        {"radialblur",
         "zoom or spin blur about a centre",
         {choiceParam("type", kRadialBlurTypes, "zoom",
                      "zoom: along lines through the centre; spin: along circles about it"),
          required("centre", ParamType::Vec2, {31, 22}, "the centre, in pixels").anyValue(),
          Param{"amount", ParamType::Number, 0.1,
                "zoom: the fraction of the distance to the centre the blur spans (below 1); spin: "
                "the arc, in degrees"}
              .range(-360, 360),
          Param{"samples", ParamType::Int, 32, "the count of points read per pixel"}.range(2, 4096),
          extendParam("extend", "background", "what is read beyond the input's data")},
         {"input"},
         [](const OperationArgs& a) {
             IMGLIB::RadialBlurParams p;
             p.type = a.choice(kRadialBlurTypes, "type");
             p.centreX = a.vec2("centre").x;
             p.centreY = a.vec2("centre").y;
             p.amount = a.number("amount");
             p.samples = a.integer("samples");
             return createRadialBlur(a.node(), a.time(), p, a.extend("extend"), false, UTIL::Rect(),
                                     a.input("input"));
         }});
    ops.back().aliases = {"radialBlur"};
}

}  // namespace Private

}  // namespace TESSERA
