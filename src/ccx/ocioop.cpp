// OpenColorIO processors as in-place operators.
#include <sstream>

#include "colortasks.h"
#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "inplacetask.h"
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

namespace Private {

void declareOCIOOperations(OperationList& ops) {
    ops.push_back(
        {"ociofile",
         "an OpenColorIO file transform (LUT)",
         {required("path", ParamType::Path, "curve.spi1d"), {"inverse", ParamType::Bool, false}},
         {"input"},
         [](const OperationArgs& a) {
             auto t = OCIO_NAMESPACE::FileTransform::Create();
             t->setSrc(a.path("path").c_str());
             return createOCIOTransformTask(a.node(), 0, t,
                                            a.flag("inverse")
                                                ? OCIO_NAMESPACE::TRANSFORM_DIR_INVERSE
                                                : OCIO_NAMESPACE::TRANSFORM_DIR_FORWARD,
                                            a.input("input"));
         }});
    ops.push_back(
        {"ociocolorspace",
         "OpenColorIO colour-space conversion",
         {required("config", ParamType::Path, "config.ocio"),
          required("from", ParamType::String, "linear"), required("to", ParamType::String, "warm")},
         {"input"},
         [](const OperationArgs& a) {
             auto config = OCIO_NAMESPACE::Config::CreateFromFile(a.path("config").c_str());
             return createOCIOProcessorTask(
                 a.node(), 0, config->getProcessor(a.text("from").c_str(), a.text("to").c_str()),
                 a.input("input"));
         }});
}

}  // namespace Private

}  // namespace TESSERA
