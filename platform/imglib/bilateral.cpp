#include "imglib/bilateral.h"

#include <cmath>
#include <vector>

#include "imglib/bilateralengine.h"
#include "imglib/neighbourhood.h"
#include "imglib/pixels.h"

namespace IMGLIB {

namespace {

// An image's R, G, B and A alone, packed for the vectorized rows.
struct PackedRGBA {
    std::vector<float> pixels;
    Image image;

    PackedRGBA(const Image* of, const int slots[4]) : PackedRGBA(of->x1, of->y1, of->x2, of->y2) {
        const PixelGrid from(of);
        for (int64_t y = of->y1; y < of->y2; ++y) {
            float* to = image.row(y);
            for (int64_t x = of->x1; x < of->x2; ++x, to += 4) {
                const float* p = from.at(x, y);
                for (int c = 0; c < 4; ++c) to[c] = p[slots[c]];
            }
        }
    }
    PackedRGBA(int64_t x1, int64_t y1, int64_t x2, int64_t y2)
        : pixels(size_t((x2 - x1) * (y2 - y1) * 4)) {
        image.channels = CHANNELS_RGBA;
        image.x1 = x1, image.y1 = y1, image.x2 = x2, image.y2 = y2;
        image.rowBytes = (x2 - x1) * 16;
        image.pixelPtr = pixels.data();
    }
};

void FilterRGBARows(const Image* out, const Image* in, const std::vector<BilateralTap>& taps,
                    float rangeScale) {
    const PixelGrid src(in), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y)
        DispatchBilateralRowRGBA(dst.at(out->x1, y), src.at(out->x1, y),
                                 static_cast<size_t>(out->width()), src.stride, taps.data(),
                                 taps.size(), rangeScale);
}

}  // namespace

int BilateralFilter(const Image* out, const Image* in, uint32_t radiusX, uint32_t radiusY,
                    float sigmaSpatial, float sigmaRange) {
    const int64_t rx = radiusX, ry = radiusY;
    if (int status = CheckNeighbourhood("BilateralFilter", out, in, rx, ry)) return status;
    if (!(sigmaRange > 0.0f)) return CopyInto(out, in);
    std::vector<BilateralTap> taps;
    for (int64_t dy = -ry; dy <= ry; ++dy)
        for (int64_t dx = -rx; dx <= rx; ++dx) {
            const float d2 = float(dx * dx + dy * dy);
            taps.push_back({dx, dy,
                            sigmaSpatial > 0.0f
                                ? std::exp(-d2 / (2.0f * sigmaSpatial * sigmaSpatial))
                                : 1.0f});
        }
    const float rangeScale = -1.0f / (2.0f * sigmaRange * sigmaRange);
    if (in->channels == CHANNELS_RGBA) {  // vectorized, N pixels at a time
        FilterRGBARows(out, in, taps, rangeScale);
        return ERROR_NONE;
    }

    // R, G, B and A, when all are there, take the vectorized rows whatever
    // else the image holds, so that their values do not depend on it; the
    // other channels are summed here with the same colour distance.
    int rgbaSlot[4];
    for (int c = 0; c < 4; ++c) rgbaSlot[c] = GetChannelIndex(in->channels, uint64_t(1) << c);
    const bool hasRGBA = (in->channels & CHANNELS_RGBA) == CHANNELS_RGBA;
    if (hasRGBA) {
        const PackedRGBA from(in, rgbaSlot);
        PackedRGBA to(out->x1, out->y1, out->x2, out->y2);
        FilterRGBARows(&to.image, &from.image, taps, rangeScale);
        const PixelGrid packed(&to.image), dst(out);
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x)
                for (int c = 0; c < 4; ++c) dst.at(x, y)[rgbaSlot[c]] = packed.at(x, y)[c];
    }
    std::vector<int> summed;  // the slots filtered here
    for (int slot = 0; slot < GetChannelCount(in->channels); ++slot)
        if (!hasRGBA || (slot != rgbaSlot[0] && slot != rgbaSlot[1] && slot != rgbaSlot[2] &&
                         slot != rgbaSlot[3]))
            summed.push_back(slot);
    if (summed.empty()) return ERROR_NONE;

    const PixelGrid src(in), dst(out);
    int colour[3];
    const int colours = ColourSlots(in->channels, colour);
    std::vector<double> sum(summed.size());
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const float* centre = src.at(x, y);
            std::fill(sum.begin(), sum.end(), 0.0);
            double total = 0.0;
            for (const BilateralTap& tap : taps) {
                const float* p = src.at(x + tap.dx, y + tap.dy);
                float r2 = 0.0f;
                for (int i = 0; i < colours; ++i) {
                    const float diff = p[colour[i]] - centre[colour[i]];
                    r2 += diff * diff;
                }
                const float w = tap.weight * std::exp(r2 * rangeScale);
                if (!(w > 0.0f)) continue;  // NaN neighbours do not count
                total += w;
                for (size_t i = 0; i < summed.size(); ++i) sum[i] += double(w) * p[summed[i]];
            }
            float* o = dst.at(x, y);
            for (size_t i = 0; i < summed.size(); ++i)
                o[summed[i]] = total > 0.0 ? float(sum[i] / total) : centre[summed[i]];
        }
    return ERROR_NONE;
}

}  // namespace IMGLIB
