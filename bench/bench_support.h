// What the whole-pipeline benchmarks share: a decoded 4K frame in memory, a
// source task serving it, and an observer that lets tiles go.
#pragma once

#include <vector>

#include "imglib/pixels.h"
#include "support/serial_render.h"

namespace TESSERA {
namespace bench {

constexpr int64_t kWidth = 3840, kHeight = 2160;

// An RGBA float frame over [-pad, size + pad), rows packed.
struct Frame {
    explicit Frame(float seed = 0.0f, int64_t pad = 0)
        : pixels(static_cast<size_t>((kWidth + 2 * pad) * (kHeight + 2 * pad) * 4)) {
        image.channels = IMGLIB::CHANNELS_RGBA;
        image.x1 = -pad;
        image.y1 = -pad;
        image.x2 = kWidth + pad;
        image.y2 = kHeight + pad;
        image.rowBytes = (kWidth + 2 * pad) * 16;
        image.pixelPtr = pixels.data();
        for (size_t i = 0; i < pixels.size(); ++i)
            pixels[i] =
                (i % 4 == 3) ? float((i / 4) % 97) / 96.0f : seed + float(i % 1013) / 1013.0f;
    }
    std::vector<float> pixels;
    IMGLIB::Image image;
};

// Decoded pixels in memory as a graph source: a tile is a copy of its part.
class MemorySource : public testing::ConstantTask {
public:
    MemorySource(const std::string& name, const IMGLIB::Image& image)
        : ConstantTask(name, Imath::Color4<float>(0, 0, 0, 0),
                       UTIL::Rect(image.x1, image.y1, image.x2, image.y2)),
          image(image) {}
    MemorySource(const std::string& name, const Frame& frame) : MemorySource(name, frame.image) {}
    std::string getTypeString() override { return "MemorySource"; }
    void computeCacheID(CacheIDStream& s) override { s << image.pixelPtr; }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        IMGLIB::CopyInto(out, &image);
    }
    const IMGLIB::Image image;
};

class NullObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer&, const OutputTileID&) override {}
};

}  // namespace bench
}  // namespace TESSERA
