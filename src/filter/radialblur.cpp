// Zoom and spin blurs about a centre.
#include "imglib/radialblur.h"
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/error.h"
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

TaskPtr createRadialBlur(const std::string& name, float time,
                         const IMGLIB::RadialBlurParams& params, IMGLIB::ExtendMethod extendMethod,
                         bool extendFlag, const UTIL::Rect& extendRect, TaskPtr input) {
    if (IMGLIB::ValidateRadialBlurParams(params) != IMGLIB::ERROR_NONE)
        throw UTIL::ErrorException(name + ": " + IMGLIB::GetErrorMessage());
    return TaskPtr(new Private::RadialBlur(name, time, params, extendMethod, extendFlag, extendRect,
                                           std::move(input)));
}

}  // namespace TESSERA
