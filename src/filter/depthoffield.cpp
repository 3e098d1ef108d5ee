// Depth of field from a depth image: circles of confusion, the blur they
// drive, and the clean-up of the depth itself.
#include <algorithm>

#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/compositeops.h"
#include "imglib/defocus.h"
#include "imglib/depthoffield.h"
#include "imglib/rankfilters.h"
#include "imglib/variableblur.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

void describeLens(CacheIDStream& s, const DepthOfFieldParams& p) {
    const IMGLIB::LensParams& l = p.lens;
    s << l.focalLength << "," << l.fStop << "," << l.focusDistance << "," << l.unitsPerMetre << ","
      << l.filmBackWidth << "," << l.imageWidth << "," << l.maxCoc << "," << p.depthChannel;
}

// The radius over which the minimal and maximal circles are taken: the
// reach of the largest circle.
float extremeRadius(const DepthOfFieldParams& p) {
    return 0.5f * std::max(p.lens.maxCoc, 0.0f);
}

}  // namespace

class CircleOfConfusion : public NeighbourhoodTask {
public:
    CircleOfConfusion(const std::string& name, float time, const DepthOfFieldParams& p,
                      uint64_t channels, CircleOfConfusionOutputType type, TaskPtr depth)
        : NeighbourhoodTask(name, time, "CircleOfConfusion", std::move(depth)),
          m_p(p),
          m_channels(channels ? channels : p.depthChannel),
          m_type(type) {
        const int64_t pad =
            type == COC_OUTPUT_COC ? 0 : IMGLIB::GetErodeDilatePadding(extremeRadius(p));
        setPadding(pad, pad);
        setImageChannels(p.depthChannel);
        // Where there is no depth the circle is that of infinity, not 0.
        setFillWithoutImage(false);
    }

protected:
    void describe(CacheIDStream& s) override {
        describeLens(s, m_p);
        s << "," << m_channels << "," << int(m_type);
    }
    uint64_t computeOutputChannels() override { return m_channels; }
    Imath::Color4<float> computeBackgroundColor() override {
        const float coc = IMGLIB::CircleOfConfusion(m_p.lens, 0.0f);
        return Imath::Color4<float>(coc, coc, coc, coc);
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        const float r = extremeRadius(m_p);
        switch (m_type) {
            case COC_OUTPUT_MINIMAL:
                check(IMGLIB::CalculateMinimalCocImage(out, in[0], m_p.depthChannel, m_p.lens, r));
                break;
            case COC_OUTPUT_MAXIMAL:
                check(IMGLIB::CalculateMaximalCocImage(out, in[0], m_p.depthChannel, m_p.lens, r));
                break;
            default:
                check(IMGLIB::CalculateCocImage(out, in[0], m_p.depthChannel, m_p.lens));
        }
    }

private:
    DepthOfFieldParams m_p;
    uint64_t m_channels;
    CircleOfConfusionOutputType m_type;
};

// Input 0 the image, 1 its circles of confusion (in red), 2 an optional mask.
class DepthOfField : public NeighbourhoodTask {
public:
    DepthOfField(const std::string& name, float time, const DepthOfFieldParams& p, TaskPtr image,
                 TaskPtr coc, TaskPtr mask)
        : NeighbourhoodTask(name, time, "DepthOfField", std::move(image)), m_p(p) {
        int64_t padX, padY;
        const IMGLIB::ApertureShape& a = p.aperture;
        if (p.physical) {
            padX = padY = IMGLIB::GetPhysicalDepthOfFieldPadding(p.lens.maxCoc);
        } else {
            IMGLIB::GetDefocusPadding(p.lens.maxCoc, a.aspect, a.blades, a.rotation, a.smooth, padX,
                                      padY);
        }
        setPadding(padX, padY);
        // The scatter reads the circles of every pixel that can reach the tile.
        const int64_t cocPad = p.physical ? padX : 0;
        addAuxiliaryInput(std::move(coc), IMGLIB::CHANNEL_R, cocPad, cocPad);
        if (mask) addAuxiliaryInput(std::move(mask), IMGLIB::CHANNEL_A, 0, 0);
    }

protected:
    void describe(CacheIDStream& s) override {
        describeLens(s, m_p);
        const IMGLIB::ApertureShape& a = m_p.aperture;
        s << "," << m_p.physical << "," << a.aspect << "," << a.blades << "," << a.rotation << ","
          << a.smooth << "," << m_p.layers;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        if (m_p.physical)
            check(IMGLIB::PhysicalDepthOfField(out, in[0], in[1], IMGLIB::CHANNEL_R,
                                               m_p.lens.maxCoc));
        else
            check(IMGLIB::NonPhysicalDepthOfField(out, in[0], in[1], IMGLIB::CHANNEL_R, 1.0f,
                                                  m_p.lens.maxCoc, m_p.layers, m_p.aperture));
        if (in.size() > 2) check(IMGLIB::MixByMask(out, in[0], out, in[2]));
    }

private:
    DepthOfFieldParams m_p;
};

class DOFDepthCleanup : public NeighbourhoodTask {
public:
    DOFDepthCleanup(const std::string& name, float time, const DepthOfFieldParams& p, TaskPtr depth)
        : NeighbourhoodTask(name, time, "DOFDepthCleanup", std::move(depth)),
          m_radius(p.cleanupRadius) {
        const int64_t pad = IMGLIB::GetErodeDilatePadding(std::max(m_radius, 0.0f));
        setPadding(pad, pad);
    }

protected:
    void describe(CacheIDStream& s) override { s << m_radius; }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::CleanupDepth(out, in[0], m_radius));
    }

private:
    float m_radius;
};

// The parameters the depth operators share, as their declarations take them.
void checkLensParameters(const std::string& name, const DepthOfFieldParams& p) {
    checkParameters("depthoffield", name,
                    {{"focalLength", p.lens.focalLength},
                     {"fStop", p.lens.fStop},
                     {"focusDistance", p.lens.focusDistance},
                     {"unitsPerMetre", p.lens.unitsPerMetre},
                     {"filmBackWidth", p.lens.filmBackWidth},
                     {"imageWidth", p.lens.imageWidth},
                     {"maxCoc", p.lens.maxCoc},
                     {"depthChannel", choiceValue(channelChoices(), p.depthChannel)},
                     {"blades", p.aperture.blades},
                     {"layers", p.layers},
                     {"cleanupRadius", p.cleanupRadius}});
}

// Each value in range, and a lens that can focus where it is asked to.
void checkLens(const std::string& name, const DepthOfFieldParams& p) {
    checkLensParameters(name, p);
    if (IMGLIB::CircleOfConfusion(p.lens, 1.0f) < 0.0f)
        throw InvalidParameterException(name, "focusDistance",
                                        "the lens cannot focus at " +
                                            formatNumber(p.lens.focusDistance) +
                                            " (it must be beyond the focal length)");
}

}  // namespace Private

TaskPtr createCircleOfConfusionTask(const std::string& name, float time,
                                    const DepthOfFieldParams& params, uint64_t channels,
                                    CircleOfConfusionOutputType type, TaskPtr depth) {
    if (!depth) throw UTIL::ErrorException("CircleOfConfusion requires a depth input.");
    Private::checkLens(name, params);
    if (type != COC_OUTPUT_COC && type != COC_OUTPUT_MINIMAL && type != COC_OUTPUT_MAXIMAL)
        throw UTIL::ErrorException(name + ": unknown output type " + std::to_string(int(type)));
    return TaskPtr(
        new Private::CircleOfConfusion(name, time, params, channels, type, std::move(depth)));
}

TaskPtr createDepthOfFieldTask(const std::string& name, float time,
                               const DepthOfFieldParams& params, const BloomControlSettings& bloom,
                               TaskPtr image, TaskPtr depth, TaskPtr mask) {
    if (!image) throw UTIL::ErrorException("DepthOfField requires an input.");
    if (!depth) throw UTIL::ErrorException("DepthOfField requires a depth input.");
    Private::checkLens(name, params);
    TaskPtr coc = createCircleOfConfusionTask(name + ".CircleOfConfusion", time, params,
                                              IMGLIB::CHANNEL_R, COC_OUTPUT_COC, std::move(depth));
    coc->setCaching(false);
    return TaskPtr(new Private::DepthOfField(
        name, time, params, Private::withBloom(name, time, bloom, std::move(image)), std::move(coc),
        std::move(mask)));
}

TaskPtr createDOFDepthCleanupTask(const std::string& name, float time,
                                  const DepthOfFieldParams& params, TaskPtr depth) {
    if (!depth) throw UTIL::ErrorException("DOFDepthCleanup requires a depth input.");
    Private::checkLensParameters(name, params);
    return TaskPtr(new Private::DOFDepthCleanup(name, time, params, std::move(depth)));
}

namespace Private {

const Choices<CircleOfConfusionOutputType> kCocOutputs = {
    {"coc", COC_OUTPUT_COC}, {"minimal", COC_OUTPUT_MINIMAL}, {"maximal", COC_OUTPUT_MAXIMAL}};

// The thin lens and the depth of field's settings, shared by its three
// operations.
std::vector<Param> withLens(std::vector<Param> params) {
    const std::vector<Param> lens = {
        Param{"focalLength", ParamType::Number, 50, "the lens's focal length, in millimetres"}
            .range(1e-3, 1e6),
        Param{"fStop", ParamType::Number, 2.8,
              "the f-number: the aperture's diameter is focalLength / fStop"}
            .range(1e-3, 1e6),
        Param{"focusDistance", ParamType::Number, 5,
              "the distance in focus, in scene units (beyond the focal length)"}
            .range(1e-6, kMaxMagnitude),
        Param{"unitsPerMetre", ParamType::Number, 1,
              "scene units in a metre (depth and focusDistance are in scene units)"}
            .range(1e-6, 1e6),
        Param{"filmBackWidth", ParamType::Number, 36, "the film back's width, in millimetres"}
            .range(1e-3, 1e6),
        Param{"imageWidth", ParamType::Number, 1920,
              "the image's width across the film back, in pixels"}
            .range(1, 1e6),
        Param{"maxCoc", ParamType::Number, 32, "the largest circle of confusion made, in pixels"}
            .range(0, 512),
        channelParam("depthChannel", "z", "the channel that holds depth"),
        Param{"physical", ParamType::Bool, false,
              "scatter each pixel over its circle (else gather in layers of fixed blur)"},
        Param{"blades", ParamType::Int, 0,
              "the aperture's blade count: a polygon of 3 or more sides; 0 to 2: a disc"}
            .range(0, 64),
        Param{"layers", ParamType::Int, 8,
              "the count of fixed-size blurs blended between when gathering"}
            .range(1, 256),
        Param{"cleanupRadius", ParamType::Number, 2,
              "how far depth clean-up widens the foreground, in pixels"}
            .range(0, 512)};
    params.insert(params.begin(), lens.begin(), lens.end());
    return params;
}

DepthOfFieldParams dofParams(const OperationArgs& a) {
    DepthOfFieldParams p;
    p.lens.focalLength = a.number("focalLength");
    p.lens.fStop = a.number("fStop");
    p.lens.focusDistance = a.number("focusDistance");
    p.lens.unitsPerMetre = a.number("unitsPerMetre");
    p.lens.filmBackWidth = a.number("filmBackWidth");
    p.lens.imageWidth = a.number("imageWidth");
    p.lens.maxCoc = a.number("maxCoc");
    p.depthChannel = a.channel("depthChannel");
    p.physical = a.flag("physical");
    p.aperture.blades = a.integer("blades");
    p.layers = a.integer("layers");
    p.cleanupRadius = a.number("cleanupRadius");
    return p;
}

void declareDepthOfFieldOperations(OperationList& ops) {
    ops.push_back(
        {"circleofconfusion",
         "circles of confusion (pixels) of a depth channel, in red",
         withLens({choiceParam("output", kCocOutputs, "coc",
                               "coc: each pixel's own circle; minimal, maximal: the smallest or "
                               "largest within the largest circle's radius")}),
         {"depth"},
         [](const OperationArgs& a) {
             return createCircleOfConfusionTask(a.node(), a.time(), dofParams(a), IMGLIB::CHANNEL_R,
                                                a.choice(kCocOutputs, "output"), a.input("depth"));
         }});
    ops.back().aliases = {"circleOfConfusion"};
    ops.back().rules = {"focusDistance lies beyond the focal length (the lens can focus there)"};
    ops.push_back({"depthoffield",
                   "the input blurred by the circles of confusion of its depth",
                   withLens({}),
                   {"input", "depth", {"mask", true}},
                   [](const OperationArgs& a) {
                       return createDepthOfFieldTask(a.node(), a.time(), dofParams(a), noBloom(),
                                                     a.input("input"), a.input("depth"),
                                                     a.input("mask"));
                   }});
    ops.back().aliases = {"depthOfField"};
    ops.back().rules = {"focusDistance lies beyond the focal length (the lens can focus there)"};
    ops.push_back({"depthcleanup",
                   "depth with holes filled and foreground widened",
                   withLens({}),
                   {"depth"},
                   [](const OperationArgs& a) {
                       return createDOFDepthCleanupTask(a.node(), a.time(), dofParams(a),
                                                        a.input("depth"));
                   }});
    ops.back().aliases = {"depthCleanup"};
}

}  // namespace Private

}  // namespace TESSERA
