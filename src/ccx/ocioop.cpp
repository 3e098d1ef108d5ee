// OpenColorIO processors as in-place operators.
#include <algorithm>
#include <sstream>

#include "colortasks.h"
#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "inplacetask.h"
#include "ociotasks.h"
#include "private/operation.h"

namespace OCIO = OCIO_NAMESPACE;

namespace TESSERA {
namespace {

// Runs one OpenColorIO CPU processor, made once and shared by every tile
// (its apply is safe from several threads).
class OCIOOp : public InPlaceOp {
public:
    OCIOOp(std::string type, OCIO::ConstProcessorRcPtr processor)
        : m_type(std::move(type)),
          m_processor(std::move(processor)),
          m_cpu(m_processor->getDefaultCPUProcessor()) {}

    void computeCacheID(CacheIDStream& stream) override { stream << m_processor->getCacheID(); }

    int apply(const IMGLIB::Image* out, const IMGLIB::Image* in) override {
        if (out != in)
            if (int err = IMGLIB::CopyInto(out, in)) return err;
        const int r = IMGLIB::GetChannelIndex(out->channels, IMGLIB::CHANNEL_R);
        const int a = IMGLIB::GetChannelIndex(out->channels, IMGLIB::CHANNEL_A);
        if (r != 0 || out->width() == 0 || out->height() == 0) return IMGLIB::ERROR_NONE;
        // R, G, B lead every pixel (they are the lowest bits); alpha follows
        // directly when present.
        const long numChannels = a == 3 ? 4 : 3;
        const ptrdiff_t pixelBytes = IMGLIB::GetPixelBytes(out->channels);
        try {
            OCIO::PackedImageDesc desc(out->pixelPtr, out->width(), out->height(), numChannels,
                                       OCIO::BIT_DEPTH_F32, sizeof(float), pixelBytes,
                                       out->rowBytes);
            m_cpu->apply(desc);
        } catch (const OCIO::Exception& e) {
            return IMGLIB::SetError(IMGLIB::ERROR_INVALID_ARGUMENT,
                                    std::string("OpenColorIO: ") + e.what());
        }
        return IMGLIB::ERROR_NONE;
    }
    std::size_t getOutputChannels(std::size_t channels) override {
        return channels | IMGLIB::CHANNELS_RGB;
    }
    std::size_t getRequiredInputChannels(std::size_t channels) override {
        return channels | IMGLIB::CHANNELS_RGB;
    }
    std::string getTypeString() override { return m_type; }
    Color4f applyToColor(const Color4f& color) override {
        float pixel[4] = {color.r, color.g, color.b, color.a};
        m_cpu->applyRGBA(pixel);
        return Color4f(pixel[0], pixel[1], pixel[2], pixel[3]);
    }

private:
    std::string m_type;
    OCIO::ConstProcessorRcPtr m_processor;
    OCIO::ConstCPUProcessorRcPtr m_cpu;
};

}  // namespace

TaskPtr createOCIOProcessorTask(const std::string& name, float sampleRate,
                                OCIO::ConstProcessorRcPtr processor, TaskPtr input) {
    if (!processor)
        throw std::invalid_argument(name + ": createOCIOProcessorTask needs a processor");
    return TaskPtr(new InPlaceTask(InPlaceOpPtr(new OCIOOp("OCIOProcessor", std::move(processor))),
                                   name, sampleRate, std::move(input)));
}

TaskPtr createOCIOTransformTask(const std::string& name, float sampleRate,
                                OCIO::ConstTransformRcPtr transform,
                                OCIO::TransformDirection direction, TaskPtr input) {
    if (!transform)
        throw std::invalid_argument(name + ": createOCIOTransformTask needs a transform");
    // A transform needs no colour spaces: a raw configuration resolves it.
    OCIO::ConstProcessorRcPtr processor =
        OCIO::Config::CreateRaw()->getProcessor(transform, direction);
    return TaskPtr(new InPlaceTask(InPlaceOpPtr(new OCIOOp("OCIOTransform", std::move(processor))),
                                   name, sampleRate, std::move(input)));
}

namespace {

// Each space by the built-in transforms that take it to ACES2065-1 (a
// leading '-' runs one inverted).
const std::vector<std::pair<std::string, std::vector<std::string>>>& spaces() {
    static const std::vector<std::pair<std::string, std::vector<std::string>>> table = {
        {"aces2065-1", {}},
        {"acescg", {"ACEScg_to_ACES2065-1"}},
        {"acescc", {"ACEScc_to_ACES2065-1"}},
        {"acescct", {"ACEScct_to_ACES2065-1"}},
        {"lin_rec709", {"-UTILITY - ACES-AP1_to_LINEAR-REC709_BFD", "ACEScg_to_ACES2065-1"}},
        {"srgb", {"-DISPLAY - CIE-XYZ-D65_to_sRGB", "-UTILITY - ACES-AP0_to_CIE-XYZ-D65_BFD"}},
        {"rec709",
         {"-DISPLAY - CIE-XYZ-D65_to_REC.1886-REC.709", "-UTILITY - ACES-AP0_to_CIE-XYZ-D65_BFD"}},
        {"logc", {"ARRI_ALEXA-LOGC-EI800-AWG_to_ACES2065-1"}},
        {"slog3", {"SONY_SLOG3-SGAMUT3.CINE_to_ACES2065-1"}},
        {"log3g10", {"RED_LOG3G10-RWG_to_ACES2065-1"}},
        {"vlog", {"PANASONIC_VLOG-VGAMUT_to_ACES2065-1"}},
        {"clog3", {"CANON_CLOG3-CGAMUT_to_ACES2065-1"}}};
    return table;
}

const std::vector<std::string>& stepsOf(const std::string& task, const std::string& space) {
    for (const auto& entry : spaces())
        if (entry.first == space) return entry.second;
    std::string names;
    for (const auto& entry : spaces()) names += (names.empty() ? "" : ", ") + entry.first;
    throw std::invalid_argument(task + ": unknown colour space '" + space + "' (one of: " + names +
                                ")");
}

// The space's steps to ACES2065-1, appended forwards or inverted.
void appendSteps(OCIO::GroupTransformRcPtr& group, const std::vector<std::string>& steps,
                 bool toReference) {
    std::vector<OCIO::TransformRcPtr> transforms;
    for (const std::string& step : steps) {
        const bool inverse = step[0] == '-';
        OCIO::BuiltinTransformRcPtr t = OCIO::BuiltinTransform::Create();
        t->setStyle(step.c_str() + (inverse ? 1 : 0));
        t->setDirection(inverse != toReference ? OCIO::TRANSFORM_DIR_FORWARD
                                               : OCIO::TRANSFORM_DIR_INVERSE);
        transforms.push_back(t);
    }
    if (!toReference) std::reverse(transforms.begin(), transforms.end());
    for (const OCIO::TransformRcPtr& t : transforms) group->appendTransform(t);
}

}  // namespace

std::vector<std::string> builtinColorSpaces() {
    std::vector<std::string> names;
    for (const auto& entry : spaces()) names.push_back(entry.first);
    return names;
}

TaskPtr createColorSpaceTask(const std::string& name, float sampleRate, const std::string& from,
                             const std::string& to, bool unpremultiply, TaskPtr input) {
    OCIO::GroupTransformRcPtr group = OCIO::GroupTransform::Create();
    appendSteps(group, stepsOf(name, from), true);
    appendSteps(group, stepsOf(name, to), false);
    if (from == to) return input;
    OCIO::ConstProcessorRcPtr processor =
        OCIO::Config::CreateRaw()->getProcessor(group, OCIO::TRANSFORM_DIR_FORWARD);
    if (unpremultiply) input = createMultInverseTask(name + ".unpremultiply", sampleRate, input);
    TaskPtr converted(new InPlaceTask(InPlaceOpPtr(new OCIOOp("ColorSpace", std::move(processor))),
                                      name, sampleRate, std::move(input)));
    return unpremultiply ? createPremultiplyTask(name + ".premultiply", sampleRate, converted)
                         : converted;
}

namespace Private {

void declareOCIOOperations(OperationList& ops) {
    std::vector<std::pair<std::string, std::string>> names;
    for (const std::string& space : builtinColorSpaces()) names.emplace_back(space, space);
    ops.push_back(
        {"colorspace",
         "conversion between common colour spaces, no configuration needed",
         {choiceParam("from", names, "lin_rec709", "the colour space of the input"),
          choiceParam("to", names, "srgb", "the colour space of the output"),
          {"unpremultiply", ParamType::Bool, true,
           "convert straight colour (divide by alpha first, multiply after)"}},
         {"input"},
         [](const OperationArgs& a) {
             return createColorSpaceTask(a.node(), a.time(), a.text("from"), a.text("to"),
                                         a.flag("unpremultiply"), a.input("input"));
         },
         "Through OpenColorIO's built-in transforms, by way of ACES2065-1: lin_rec709 (linear "
         "sRGB and Rec.709 primaries), srgb, rec709 (BT.1886), acescg, aces2065-1, acescc, "
         "acescct, logc (ARRI LogC EI800, AWG), slog3 (S-Log3, S-Gamut3.Cine), log3g10 (RED "
         "Log3G10, RWG), vlog (Panasonic V-Log), clog3 (Canon Log 3). As `oiiotool "
         "--colorconvert` for the spaces both know."});
    ops.push_back(
        {"ociofile",
         "an OpenColorIO file transform (LUT)",
         {required("path", ParamType::Path, "curve.spi1d",
                   "the LUT file (any format OpenColorIO reads: .cube, .spi1d, .spi3d, .clf, ...)"),
          Param{"inverse", ParamType::Bool, false, "apply the LUT's inverse"}},
         {"input"},
         [](const OperationArgs& a) {
             auto t = OCIO_NAMESPACE::FileTransform::Create();
             t->setSrc(a.path("path").c_str());
             return createOCIOTransformTask(a.node(), a.time(), t,
                                            a.flag("inverse")
                                                ? OCIO_NAMESPACE::TRANSFORM_DIR_INVERSE
                                                : OCIO_NAMESPACE::TRANSFORM_DIR_FORWARD,
                                            a.input("input"));
         }});
    ops.push_back({"ociocolorspace",
                   "OpenColorIO colour-space conversion",
                   {required("config", ParamType::Path, "config.ocio",
                             "the OpenColorIO configuration (.ocio)"),
                    required("from", ParamType::String, "linear",
                             "the colour space of the input, by its name in the configuration"),
                    required("to", ParamType::String, "warm",
                             "the colour space of the output, by its name in the configuration")},
                   {"input"},
                   [](const OperationArgs& a) {
                       auto config =
                           OCIO_NAMESPACE::Config::CreateFromFile(a.path("config").c_str());
                       return createOCIOProcessorTask(
                           a.node(), a.time(),
                           config->getProcessor(a.text("from").c_str(), a.text("to").c_str()),
                           a.input("input"));
                   }});
}

}  // namespace Private

}  // namespace TESSERA
