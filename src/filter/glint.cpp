// Glints: star-shaped streaks from the highlights of an image.
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/channels.h"
#include "imglib/lineblur.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

class GlintControl : public NeighbourhoodTask {
public:
    GlintControl(const std::string& name, float time, const GlintControlParams& p, TaskPtr input)
        : NeighbourhoodTask(name, time, "GlintControl", std::move(input)), m_p(p) {
        setChannelsAlwaysRead(IMGLIB::CHANNELS_RGB);  // the luminance sets every channel's gain
    }

protected:
    void describe(CacheIDStream& s) override { s << m_p.threshold << "," << m_p.gain; }
    Imath::Color4<float> computeBackgroundColor() override {
        Imath::Color4<float> bg = getInputBackgroundColor(0);
        float rgba[4] = {bg.r, bg.g, bg.b, bg.a};
        const IMGLIB::Image pixel = IMGLIB::SinglePixelImage(rgba);
        check(IMGLIB::GlintControl(&pixel, &pixel, m_p.threshold, m_p.gain));
        return Imath::Color4<float>(rgba[0], rgba[1], rgba[2], rgba[3]);
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::GlintControl(out, in[0], m_p.threshold, m_p.gain));
    }

private:
    GlintControlParams m_p;
};

// Input 0 the image, input 1 the source of the streaks.
class Glint : public NeighbourhoodTask {
public:
    Glint(const std::string& name, float time, bool addToImage, const GlintParams& p, TaskPtr image,
          TaskPtr source)
        : NeighbourhoodTask(name, time, "Glint", std::move(image)), m_add(addToImage), m_p(p) {
        const int64_t pad = IMGLIB::GetGlintPadding(p.length);
        addAuxiliaryInput(std::move(source), 0, pad, pad);
        // Streaks reach where the image has no data.
        setFillWithoutImage(false);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_add << "," << m_p.rays << "," << m_p.length << "," << m_p.rotation;
    }
    uint64_t computeOutputChannels() override {
        return IMGLIB::ValidateChannelMask(getDefinedInputChannels(0) | getDefinedInputChannels(1));
    }
    UTIL::Region computeOutputDataRegion() override {
        const int64_t pad = IMGLIB::GetGlintPadding(m_p.length);
        UTIL::Region region;
        if (m_add) region.add(getDefinedInputDataRegion(0));
        for (const UTIL::Rect& r : getDefinedInputDataRegion(1).rects())
            region.add(r.grown(pad, pad));
        return region;
    }
    // Each ray carries a constant source's brightness once.
    Imath::Color4<float> computeBackgroundColor() override {
        Imath::Color4<float> bg(0, 0, 0, 0);
        if (m_p.length > 0.0f) bg = getInputBackgroundColor(1) * float(m_p.rays);
        if (m_add) bg += getInputBackgroundColor(0);
        return bg;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::Glint(out, in[0], in[1], m_p.rays, m_p.length, m_p.rotation, m_add));
    }

private:
    bool m_add;
    GlintParams m_p;
};

}  // namespace Private

TaskPtr createGlintTask(const std::string& name, float time, bool addToImage,
                        const GlintParams& params, TaskPtr image, TaskPtr source) {
    if (!image) throw UTIL::ErrorException("Glint requires an input.");
    Private::checkParameters(
        "glint", name,
        {{"rays", params.rays}, {"length", params.length}, {"rotation", params.rotation}});
    TaskPtr streaked = source ? source : image;
    return TaskPtr(
        new Private::Glint(name, time, addToImage, params, std::move(image), std::move(streaked)));
}

TaskPtr createGlintControlTask(const std::string& name, float time,
                               const GlintControlParams& params, TaskPtr input) {
    return TaskPtr(new Private::GlintControl(name, time, params, std::move(input)));
}

namespace Private {

void declareGlintOperations(OperationList& ops) {
    ops.push_back(
        {"glintcontrol",
         "the highlights a glint streaks",
         {Param{"threshold", ParamType::Number, 1, "the brightness above which a pixel streaks"}
              .anyValue(),
          Param{"gain", ParamType::Number, 1, "the factor of the brightness above the threshold"}
              .atLeast(0)},
         {"input"},
         [](const OperationArgs& a) {
             return createGlintControlTask(
                 a.node(), a.time(), {a.number("threshold"), a.number("gain")}, a.input("input"));
         }});
    ops.back().aliases = {"glintControl"};
    ops.push_back(
        {"glint",
         "star streaks of the source (the input when none), added to the input",
         {Param{"rays", ParamType::Int, 4, "the count of streaks from each highlight"}.range(1, 64),
          Param{"length", ParamType::Number, 50, "each streak's length, in pixels"}.range(0, 2048),
          Param{"rotation", ParamType::Number, 45, "the first streak's angle, in degrees"}.range(
              -360000, 360000),
          Param{"add", ParamType::Bool, true,
                "add the streaks to the input (else the streaks alone)"}},
         {"input", {"source", true}},
         [](const OperationArgs& a) {
             const GlintParams p{a.integer("rays"), a.number("length"), a.number("rotation")};
             return createGlintTask(a.node(), a.time(), a.flag("add"), p, a.input("input"),
                                    a.input("source"));
         }});
}

}  // namespace Private

}  // namespace TESSERA
