// Blurs along lines: the directional blur and the vector (motion) blur.
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/lineblur.h"
#include "imglib/vectorblur.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

class DirectionalBlur : public NeighbourhoodTask {
public:
    DirectionalBlur(const std::string& name, float time, const DirectionalBlurParams& p,
                    TaskPtr input)
        : NeighbourhoodTask(name, time, "DirectionalBlur", std::move(input)), m_p(p) {
        int64_t padX, padY;
        IMGLIB::GetLineBlurPadding(p.length, p.angle, p.offset, padX, padY);
        setPadding(padX, padY);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_p.length << "," << m_p.angle << "," << m_p.offset << "," << m_p.density << ","
          << int(m_p.filter) << "," << m_p.bilinear;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::LineBlur(out, in[0], m_p.length, m_p.angle, m_p.offset, m_p.density,
                               m_p.filter, m_p.bilinear));
    }

private:
    DirectionalBlurParams m_p;
};

class VectorBlur : public NeighbourhoodTask {
public:
    VectorBlur(const std::string& name, float time, const VectorBlurParams& p, TaskPtr image,
               TaskPtr vectors)
        : NeighbourhoodTask(name, time, "VectorBlur", std::move(image)), m_p(p) {
        const int64_t pad = IMGLIB::GetVectorBlurPadding(p.vectors.maxLength);
        setPadding(pad, pad);
        addAuxiliaryInput(std::move(vectors), p.vectors.uChannel | p.vectors.vChannel, pad, pad);
    }

protected:
    void describe(CacheIDStream& s) override {
        const IMGLIB::VectorBlurSettings& v = m_p.vectors;
        s << v.uChannel << "," << v.vChannel << "," << v.scale << "," << v.maxLength << ","
          << v.samples << "," << m_p.splat;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(m_p.splat ? IMGLIB::VectorSplat(out, in[0], in[1], m_p.vectors)
                        : IMGLIB::VectorBlur(out, in[0], in[1], m_p.vectors));
    }

private:
    VectorBlurParams m_p;
};

}  // namespace Private

TaskPtr createDirectionalBlur(const std::string& name, float time,
                              const DirectionalBlurParams& params,
                              const BloomControlSettings& bloom, TaskPtr input) {
    Private::checkParameters(
        "directionalblur", name,
        {{"length", params.length},
         {"angle", params.angle},
         {"offset", params.offset},
         {"filter", Private::choiceValue(Private::kernelChoices(), params.filter)}});
    return TaskPtr(new Private::DirectionalBlur(
        name, time, params, Private::withBloom(name, time, bloom, std::move(input))));
}

TaskPtr createVectorBlur(const std::string& name, float time, const VectorBlurParams& params,
                         const BloomControlSettings& bloom, TaskPtr image, TaskPtr vectors) {
    if (!image) throw UTIL::ErrorException("VectorBlur requires an input.");
    if (!vectors) throw UTIL::ErrorException("VectorBlur requires a motion vector input.");
    const IMGLIB::VectorBlurSettings& v = params.vectors;
    for (uint64_t channel : {v.uChannel, v.vChannel})
        if (channel == 0 || (channel & (channel - 1)))
            throw UTIL::ErrorException(name + ": a motion channel must be one channel, not " +
                                       std::to_string(channel));
    Private::checkParameters(
        "vectorblur", name,
        {{"scale", v.scale}, {"maxLength", v.maxLength}, {"samples", v.samples}});
    return TaskPtr(new Private::VectorBlur(name, time, params,
                                           Private::withBloom(name, time, bloom, std::move(image)),
                                           std::move(vectors)));
}

namespace Private {

void declareMotionBlurOperations(OperationList& ops) {
    ops.push_back(
        {"directionalblur",
         "blur along a line at an angle (degrees)",
         {required("length", ParamType::Number, 6.5,
                   "the line's length, in pixels (1 or less: no blur)")
              .range(0, 2048),
          Param{"angle", ParamType::Number, 0,
                "the line's angle, in degrees counter-clockwise from +x (90 points up)"}
              .range(-360000, 360000),
          Param{"offset", ParamType::Number, 0,
                "slides the line: 0 centred on the pixel, 1 wholly ahead, -1 wholly behind"}
              .range(-1, 1),
          kernelParam("filter", "box", "the weight along the line (box: even)")},
         {"input"},
         [](const OperationArgs& a) {
             DirectionalBlurParams p;
             p.length = a.number("length");
             p.angle = a.number("angle");
             p.offset = a.number("offset");
             p.filter = a.kernel("filter");
             return createDirectionalBlur(a.node(), a.time(), p, noBloom(), a.input("input"));
         }});
    ops.back().aliases = {"directionalBlur"};
    ops.push_back(
        {"vectorblur",
         "motion blur along per-pixel vectors (channels u and v of the vectors input)",
         {Param{"scale", ParamType::Number, 1, "the vectors' factor (negative reverses them)"}
              .anyValue(),
          Param{"maxLength", ParamType::Number, 64,
                "the longest vector followed, in pixels; longer ones are shortened"}
              .range(0, 2048),
          Param{"samples", ParamType::Int, 16, "the count of points read along each vector"}.range(
              2, 1024),
          Param{
              "splat", ParamType::Bool, false,
              "scatter each pixel along its vector (else gather along the vector at the output)"}},
         {"input", "vectors"},
         [](const OperationArgs& a) {
             VectorBlurParams p;
             p.vectors.scale = a.number("scale");
             p.vectors.maxLength = a.number("maxLength");
             p.vectors.samples = a.integer("samples");
             p.splat = a.flag("splat");
             return createVectorBlur(a.node(), a.time(), p, noBloom(), a.input("input"),
                                     a.input("vectors"));
         }});
    ops.back().aliases = {"vectorBlur"};
}

}  // namespace Private

}  // namespace TESSERA
