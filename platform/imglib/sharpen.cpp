#include "imglib/sharpen.h"

#include <cmath>

#include "imglib/neighbourhood.h"

namespace IMGLIB {

int UnsharpMaskFromBlur(const Image* out, const Image* in, const Image* blurred,
                        const float* amount, const float* threshold) {
    if (int status = CheckNeighbourhood("UnsharpMaskFromBlur", out, in, 0, 0)) return status;
    if (!blurred || !amount || !threshold)
        return SetError(ERROR_NULL_IMAGE, "UnsharpMaskFromBlur: null blurred image or parameters");
    if (blurred->x1 > out->x1 || blurred->x2 < out->x2 || blurred->y1 > out->y1 ||
        blurred->y2 < out->y2)
        return SetError(ERROR_OUT_OF_BOUNDS,
                        "UnsharpMaskFromBlur: the blurred image does not cover the output");
    const PixelGrid src(in), dst(out), soft(blurred);
    int c = 0;
    for (uint64_t rest = out->channels; rest; rest &= rest - 1, ++c) {
        const uint64_t bit = rest & ~(rest - 1);
        const int rgba = bit <= CHANNEL_A ? GetChannelIndex(CHANNELS_RGBA, bit) : -1;
        const int blurredSlot = GetChannelIndex(blurred->channels, bit);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            const float* s = src.at(out->x1, y) + c;
            float* d = dst.at(out->x1, y) + c;
            const float* b = blurredSlot >= 0 ? soft.at(out->x1, y) + blurredSlot : nullptr;
            for (int64_t x = 0; x < out->width(); ++x) {
                const float v = s[x * dst.n];
                if (rgba < 0) {
                    d[x * dst.n] = v;
                    continue;
                }
                const float detail = v - (b ? b[x * soft.n] : 0.0f);
                d[x * dst.n] = std::fabs(detail) > threshold[rgba] ? v + amount[rgba] * detail : v;
            }
        }
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
