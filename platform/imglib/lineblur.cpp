#include "imglib/lineblur.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "imglib/neighbourhood.h"
#include "imglib/pixels.h"
#include "imglib/rowops.h"

namespace IMGLIB {

namespace {

constexpr float kPi = 3.14159265f;

struct LineTap {
    float dx, dy, weight;
};

// Direction of an angle in image coordinates (y down the rows).
void direction(float degrees, float& cx, float& cy) {
    const float a = degrees * kPi / 180.0f;
    cx = std::cos(a), cy = -std::sin(a);
}

// Sums the taps over every pixel of out; weights must be normalised. Every
// pixel has the same taps, so their bilinear (or nearest) reads fold into one
// small table of whole-pixel offsets and weights, applied a row at a time:
// one multiply-add per table entry and float, vectorized by the compiler.
void gatherTaps(const Image* out, const PixelGrid& src, const std::vector<LineTap>& taps,
                bool bilinear) {
    std::map<std::pair<int64_t, int64_t>, float> table;  // (dy, dx) -> weight
    for (const LineTap& t : taps) {
        if (!bilinear) {
            table[{std::lround(t.dy), std::lround(t.dx)}] += t.weight;
            continue;
        }
        const int64_t ix = int64_t(std::floor(t.dx)), iy = int64_t(std::floor(t.dy));
        const float fx = t.dx - float(ix), fy = t.dy - float(iy);
        table[{iy, ix}] += t.weight * (1 - fx) * (1 - fy);
        table[{iy, ix + 1}] += t.weight * fx * (1 - fy);
        table[{iy + 1, ix}] += t.weight * (1 - fx) * fy;
        table[{iy + 1, ix + 1}] += t.weight * fx * fy;
    }
    const PixelGrid dst(out);
    const int64_t count = out->width() * dst.n;
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* o = dst.at(out->x1, y);
        std::fill(o, o + count, 0.0f);
        for (const auto& [offset, weight] : table) {
            if (weight == 0.0f) continue;
            RowMulAdd(o, src.at(out->x1 + offset.second, y + offset.first), weight,
                      static_cast<size_t>(count));
        }
    }
}

}  // namespace

void GetLineBlurPadding(float length, float angle, float offset, int64_t& padX, int64_t& padY) {
    padX = padY = 0;
    if (!(length > 1.0f) || !std::isfinite(angle)) return;
    const float o = std::isfinite(offset) ? std::clamp(offset, -1.0f, 1.0f) : 0.0f;
    const float reach = std::min(length, 1e6f) * 0.5f * (1.0f + std::fabs(o));
    float cx, cy;
    direction(angle, cx, cy);
    // One more for the bilinear read's second pixel (and rounding).
    padX = ReachPixels(std::fabs(cx) * reach) + 1;
    padY = ReachPixels(std::fabs(cy) * reach) + 1;
}

int LineBlur(const Image* out, const Image* in, float length, float angle, float offset,
             float density, FilterType filter, bool bilinear) {
    int64_t padX, padY;
    GetLineBlurPadding(length, angle, offset, padX, padY);
    if (int status = CheckNeighbourhood("LineBlur", out, in, padX, padY)) return status;
    if (padX == 0 && padY == 0) return CopyInto(out, in);
    const float o = std::isfinite(offset) ? std::clamp(offset, -1.0f, 1.0f) : 0.0f;
    const float len = std::min(length, 1e6f);
    const float d = density > 0.0f && std::isfinite(density) ? std::min(density, 64.0f) : 1.0f;
    const int64_t count = std::max<int64_t>(2, int64_t(std::ceil(len * d)) + 1);
    float cx, cy;
    direction(angle, cx, cy);
    std::vector<LineTap> taps;
    float total = 0.0f;
    for (int64_t i = 0; i < count; ++i) {
        const float u = (float(i) / float(count - 1) - 0.5f) * len;  // along the line, centred
        const float along = u + 0.5f * o * len;
        const float w = filter == KERNEL_BOX || filter == KERNEL_NEAREST
                            ? 1.0f
                            : EvalKernel(filter, u, len * 1.0001f);
        if (w == 0.0f) continue;
        taps.push_back({cx * along, cy * along, w});
        total += w;
    }
    if (total == 0.0f) return CopyInto(out, in);
    for (LineTap& t : taps) t.weight /= total;
    gatherTaps(out, PixelGrid(in), taps, bilinear);
    return ERROR_NONE;
}

int GlintControl(const Image* out, const Image* in, float threshold, float gain) {
    if (int status = CheckNeighbourhood("GlintControl", out, in, 0, 0)) return status;
    int slot[4];
    for (int c = 0; c < 4; ++c) slot[c] = GetChannelIndex(in->channels, uint64_t(1) << c);
    static const float kLuma[3] = {0.2126f, 0.7152f, 0.0722f};
    const PixelGrid src(in), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const float* p = src.at(x, y);
            float* q = dst.at(x, y);
            std::copy(p, p + dst.n, q);
            float l = 0.0f;
            for (int c = 0; c < 3; ++c) l += slot[c] >= 0 ? kLuma[c] * p[slot[c]] : 0.0f;
            const float k = l > threshold && l > 0.0f ? gain * (l - threshold) / l : 0.0f;
            for (int c = 0; c < 3; ++c)
                if (slot[c] >= 0) q[slot[c]] = p[slot[c]] * k;
            if (slot[3] >= 0) q[slot[3]] = l * k;
        }
    return ERROR_NONE;
}

int64_t GetGlintPadding(float length) {
    return ReachPixels(std::min(length, 1e6f)) + 1;
}

int Glint(const Image* out, const Image* in, const Image* source, int64_t rays, float length,
          float rotation, bool addToImage) {
    const int64_t pad = GetGlintPadding(length);
    if (int status = CheckNeighbourhood("Glint", out, source, pad, pad)) return status;
    if (addToImage)
        if (int status = CheckNeighbourhood("Glint", out, in, 0, 0)) return status;
    if (rays < 1 || rays > 64)
        return SetError(ERROR_INVALID_ARGUMENT,
                        "Glint: rays must be 1 to 64, not " + std::to_string(rays));
    if (addToImage) {
        if (int status = CopyInto(out, in)) return status;
    } else {
        const float zero[4] = {0, 0, 0, 0};
        if (int status = Fill(out, zero)) return status;
    }
    if (!(length > 0.0f) || !std::isfinite(rotation)) return ERROR_NONE;
    const float len = std::min(length, 1e6f);
    const int64_t steps = std::max<int64_t>(1, int64_t(std::ceil(len)));
    std::vector<LineTap> taps;
    float total = 0.0f;
    for (int64_t r = 0; r < rays; ++r) {
        float cx, cy;
        direction(rotation + 360.0f * float(r) / float(rays), cx, cy);
        for (int64_t i = 1; i <= steps; ++i) {
            const float along = len * float(i) / float(steps);
            const float fade = 1.0f - along / (len + 1.0f);
            // A ray's light comes from the highlight behind it.
            taps.push_back({-cx * along, -cy * along, fade * fade});
            if (r == 0) total += fade * fade;
        }
    }
    for (LineTap& t : taps) t.weight /= total;
    // The streaks, added to what out holds.
    ScratchImage streaks(*out);
    const int n = GetChannelCount(out->channels);
    gatherTaps(&streaks.image, PixelGrid(source), taps, true);
    const PixelGrid dst(out), add(&streaks.image);
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* o = dst.at(out->x1, y);
        const float* s = add.at(out->x1, y);
        for (int64_t i = 0; i < out->width() * n; ++i) o[i] += s[i];
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
