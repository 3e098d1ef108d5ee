#include "imglib/bilateral.h"

#include <cmath>
#include <vector>

#include "imglib/bilateralengine.h"
#include "imglib/neighbourhood.h"
#include "imglib/pixels.h"

namespace IMGLIB {

int BilateralFilter(const Image* out, const Image* in, uint32_t radiusX, uint32_t radiusY,
                    float sigmaSpatial, float sigmaRange) {
    const int64_t rx = radiusX, ry = radiusY;
    if (int status = CheckNeighbourhood("BilateralFilter", out, in, rx, ry)) return status;
    if (!(sigmaRange > 0.0f)) return CopyInto(out, in);
    const PixelGrid src(in), dst(out);
    int colour[3];
    const int colours = ColourSlots(in->channels, colour);
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
        for (int64_t y = out->y1; y < out->y2; ++y)
            DispatchBilateralRowRGBA(dst.at(out->x1, y), src.at(out->x1, y),
                                     static_cast<size_t>(out->width()), src.stride, taps.data(),
                                     taps.size(), rangeScale);
        return ERROR_NONE;
    }
    std::vector<double> sum(static_cast<size_t>(dst.n));
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
                for (int c = 0; c < dst.n; ++c) sum[c] += double(w) * p[c];
            }
            float* o = dst.at(x, y);
            for (int c = 0; c < dst.n; ++c) o[c] = total > 0.0 ? float(sum[c] / total) : centre[c];
        }
    return ERROR_NONE;
}

}  // namespace IMGLIB
