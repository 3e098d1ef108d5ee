#include "imglib/vectorblur.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "imglib/neighbourhood.h"

namespace IMGLIB {

int64_t GetVectorBlurPadding(float maxLength) {
    return ReachPixels(0.5f * std::min(maxLength, 1e6f)) + 1;
}

namespace {

struct MotionReader {
    MotionReader(const Image* vectors, int u, int v, const VectorBlurSettings& s)
        : grid(vectors),
          uSlot(u),
          vSlot(v),
          scale(s.scale),
          limit(s.maxLength > 0.0f ? std::min(s.maxLength, 1e6f) : 0.0f) {}
    void at(int64_t x, int64_t y, float& mx, float& my) const {
        const float* p = grid.at(x, y);
        mx = p[uSlot] * scale, my = p[vSlot] * scale;
        const float length = std::hypot(mx, my);
        if (!(length <= limit)) {  // too long, or NaN
            const float k = std::isfinite(length) && length > 0.0f ? limit / length : 0.0f;
            mx *= k, my *= k;
        }
    }
    PixelGrid grid;
    int uSlot, vSlot;
    float scale, limit;
};

int prepare(const char* name, const Image* out, const Image* in, const Image* vectors,
            const VectorBlurSettings& s, int& uSlot, int& vSlot) {
    const int64_t pad = GetVectorBlurPadding(s.maxLength);
    if (int status = CheckNeighbourhood(name, out, in, pad, pad)) return status;
    if (int status = CheckControl(name, out, vectors, s.uChannel, pad, pad, uSlot)) return status;
    if (int status = CheckControl(name, out, vectors, s.vChannel, pad, pad, vSlot)) return status;
    if (s.samples < 2 || s.samples > 1024)
        return SetError(
            ERROR_INVALID_ARGUMENT,
            std::string(name) + ": samples must be 2 to 1024, not " + std::to_string(s.samples));
    return ERROR_NONE;
}

}  // namespace

int VectorBlur(const Image* out, const Image* in, const Image* vectors,
               const VectorBlurSettings& s) {
    int u, v;
    if (int status = prepare("VectorBlur", out, in, vectors, s, u, v)) return status;
    const MotionReader motion(vectors, u, v, s);
    const PixelGrid src(in), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            float mx, my;
            motion.at(x, y, mx, my);
            float* o = dst.at(x, y);
            std::fill(o, o + dst.n, 0.0f);
            const float share = 1.0f / float(s.samples);
            for (int64_t i = 0; i < s.samples; ++i) {
                const float t = float(i) / float(s.samples - 1) - 0.5f;
                src.addSample(float(x) + t * mx, float(y) + t * my, share, o);
            }
        }
    return ERROR_NONE;
}

int VectorSplat(const Image* out, const Image* in, const Image* vectors,
                const VectorBlurSettings& s) {
    int u, v;
    if (int status = prepare("VectorSplat", out, in, vectors, s, u, v)) return status;
    const MotionReader motion(vectors, u, v, s);
    const int64_t pad = GetVectorBlurPadding(s.maxLength);
    const PixelGrid src(in), dst(out);
    const int n = dst.n;
    const int64_t width = out->width();
    std::vector<double> sum(static_cast<size_t>(width * out->height() * n), 0.0);
    std::vector<double> weight(static_cast<size_t>(width * out->height()), 0.0);
    const double share = 1.0 / double(s.samples);
    const auto deposit = [&](int64_t x, int64_t y, double w, const float* colour) {
        if (x < out->x1 || x >= out->x2 || y < out->y1 || y >= out->y2 || w <= 0.0) return;
        const size_t p = static_cast<size_t>((y - out->y1) * width + (x - out->x1));
        weight[p] += w;
        for (int c = 0; c < n; ++c) sum[p * n + c] += w * colour[c];
    };
    for (int64_t qy = out->y1 - pad; qy < out->y2 + pad; ++qy)
        for (int64_t qx = out->x1 - pad; qx < out->x2 + pad; ++qx) {
            float mx, my;
            motion.at(qx, qy, mx, my);
            const float* colour = src.at(qx, qy);
            for (int64_t i = 0; i < s.samples; ++i) {
                const float t = float(i) / float(s.samples - 1) - 0.5f;
                const float fx = float(qx) + t * mx, fy = float(qy) + t * my;
                const int64_t ix = int64_t(std::floor(fx)), iy = int64_t(std::floor(fy));
                const double tx = fx - float(ix), ty = fy - float(iy);
                deposit(ix, iy, share * (1 - tx) * (1 - ty), colour);
                deposit(ix + 1, iy, share * tx * (1 - ty), colour);
                deposit(ix, iy + 1, share * (1 - tx) * ty, colour);
                deposit(ix + 1, iy + 1, share * tx * ty, colour);
            }
        }
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const size_t p = static_cast<size_t>((y - out->y1) * width + (x - out->x1));
            const float* original = src.at(x, y);
            float* o = dst.at(x, y);
            for (int c = 0; c < n; ++c)
                o[c] = weight[p] > 0.0 ? float(sum[p * n + c] / weight[p]) : original[c];
        }
    return ERROR_NONE;
}

}  // namespace IMGLIB
