#include "imglib/depthoffield.h"

#include <cmath>
#include <limits>
#include <vector>

#include "imglib/neighbourhood.h"
#include "imglib/rankfilters.h"

namespace IMGLIB {

namespace {

// The thin lens with its constants worked out once, for every pixel.
struct ThinLens {
    explicit ThinLens(const LensParams& lens)
        : f(lens.focalLength),
          mmPerUnit(1000.0 / double(lens.unitsPerMetre)),
          focus(double(lens.focusDistance) * mmPerUnit),
          pixelsPerMm(double(lens.imageWidth) / double(lens.filmBackWidth)),
          maxCoc(lens.maxCoc),
          valid(f > 0 && lens.fStop > 0 && focus > f && lens.filmBackWidth > 0 &&
                lens.unitsPerMetre > 0),
          scale(f / double(lens.fStop) * f / (focus - f)) {}
    // The circle in pixels; -1 for a lens that cannot focus.
    float operator()(float depth) const {
        if (!valid) return -1.0f;
        double coc = scale;  // the limit as the depth grows
        if (depth > 0.0f && !std::isinf(depth)) {
            const double d = double(depth) * mmPerUnit;
            coc = scale * std::fabs(d - focus) / d;
        }
        return float(std::min(coc * pixelsPerMm, double(maxCoc)));
    }
    double f, mmPerUnit, focus, pixelsPerMm;
    float maxCoc;
    bool valid;
    double scale;  // (f / N) f / (F - f)
};

}  // namespace

float CircleOfConfusion(const LensParams& lens, float depth) {
    return ThinLens(lens)(depth);
}

int CalculateCocImage(const Image* out, const Image* depth, uint64_t depthChannel,
                      const LensParams& lens) {
    int slot = -1;
    if (!out) return SetError(ERROR_NULL_IMAGE, "CalculateCocImage: null image");
    if (int status = CheckControl("CalculateCocImage", out, depth, depthChannel, 0, 0, slot))
        return status;
    const ThinLens circle(lens);
    if (!circle.valid)
        return SetError(ERROR_INVALID_ARGUMENT, "CalculateCocImage: the lens cannot focus at " +
                                                    std::to_string(lens.focusDistance));
    const PixelGrid src(depth), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const float coc = circle(src.at(x, y)[slot]);
            float* o = dst.at(x, y);
            for (int c = 0; c < dst.n; ++c) o[c] = coc;
        }
    return ERROR_NONE;
}

namespace {

int cocExtreme(const char* name, const Image* out, const Image* depth, uint64_t depthChannel,
               const LensParams& lens, float radius, bool largest) {
    if (!out || !depth) return SetError(ERROR_NULL_IMAGE, std::string(name) + ": null image");
    const float r = radius > 0.0f ? radius : 0.0f;
    const int64_t pad = GetErodeDilatePadding(r);
    ScratchImage grown(*out, out->x1 - pad, out->y1 - pad, out->x2 + pad, out->y2 + pad);
    if (int status = CalculateCocImage(&grown.image, depth, depthChannel, lens)) return status;
    return ErodeOrDilate(out, &grown.image, largest ? r : -r, largest ? r : -r);
}

}  // namespace

int CalculateMinimalCocImage(const Image* out, const Image* depth, uint64_t depthChannel,
                             const LensParams& lens, float radius) {
    return cocExtreme("CalculateMinimalCocImage", out, depth, depthChannel, lens, radius, false);
}

int CalculateMaximalCocImage(const Image* out, const Image* depth, uint64_t depthChannel,
                             const LensParams& lens, float radius) {
    return cocExtreme("CalculateMaximalCocImage", out, depth, depthChannel, lens, radius, true);
}

int64_t GetPhysicalDepthOfFieldPadding(float maxCoc) {
    return ReachPixels(0.5f * maxCoc);
}

int PhysicalDepthOfField(const Image* out, const Image* in, const Image* coc, uint64_t cocChannel,
                         float maxCoc) {
    const int64_t pad = GetPhysicalDepthOfFieldPadding(maxCoc);
    if (int status = CheckNeighbourhood("PhysicalDepthOfField", out, in, pad, pad)) return status;
    int slot = -1;
    if (int status = CheckControl("PhysicalDepthOfField", out, coc, cocChannel, pad, pad, slot))
        return status;
    const PixelGrid src(in), circles(coc), dst(out);
    const int n = dst.n;
    const float largest = maxCoc > 0.0f ? 0.5f * std::min(maxCoc, 1e6f) : 0.0f;
    const int64_t width = out->width();
    std::vector<double> sum(static_cast<size_t>(width * out->height() * n), 0.0);
    std::vector<double> weight(static_cast<size_t>(width * out->height()), 0.0);
    std::vector<int64_t> halfWidth;  // of the disc's row dy, at halfWidth[dy + reach]
    for (int64_t qy = out->y1 - pad; qy < out->y2 + pad; ++qy)
        for (int64_t qx = out->x1 - pad; qx < out->x2 + pad; ++qx) {
            const float diameter = circles.at(qx, qy)[slot];
            const float radius = diameter > 0.0f ? std::min(0.5f * diameter, largest) : 0.0f;
            const int64_t reach = static_cast<int64_t>(std::floor(radius));
            // The disc's pixels (centres within the radius), the source's
            // own always among them, row by row; each receives an equal share.
            const float r2 = radius * radius;
            halfWidth.assign(static_cast<size_t>(2 * reach + 1), reach);
            double area = 0.0;
            for (int64_t dy = -reach; dy <= reach; ++dy) {
                int64_t& half = halfWidth[static_cast<size_t>(dy + reach)];
                while (half >= 0 && float(half * half + dy * dy) > r2) --half;
                area += double(2 * half + 1);
            }
            const double share = 1.0 / area;
            const float* colour = src.at(qx, qy);
            for (int64_t dy = -reach; dy <= reach; ++dy) {
                const int64_t y = qy + dy;
                const int64_t half = halfWidth[static_cast<size_t>(dy + reach)];
                if (y < out->y1 || y >= out->y2) continue;
                for (int64_t x = std::max(qx - half, out->x1);
                     x <= std::min(qx + half, out->x2 - 1); ++x) {
                    const size_t p = static_cast<size_t>((y - out->y1) * width + (x - out->x1));
                    weight[p] += share;
                    for (int c = 0; c < n; ++c) sum[p * n + c] += share * colour[c];
                }
            }
        }
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const size_t p = static_cast<size_t>((y - out->y1) * width + (x - out->x1));
            float* o = dst.at(x, y);
            for (int c = 0; c < n; ++c) o[c] = float(sum[p * n + c] / weight[p]);
        }
    return ERROR_NONE;
}

int CleanupDepth(const Image* out, const Image* in, float radius) {
    const float r = radius > 0.0f ? radius : 0.0f;
    const int64_t pad = GetErodeDilatePadding(r);
    if (int status = CheckNeighbourhood("CleanupDepth", out, in, pad, pad)) return status;
    constexpr float kFar = std::numeric_limits<float>::infinity();
    // Missing depth as infinitely far, so the minimum passes over it.
    ScratchImage valid(*in);
    const int n = GetChannelCount(in->channels);
    const PixelGrid src(in), cleaned(&valid.image), dst(out);
    for (int64_t y = in->y1; y < in->y2; ++y) {
        const float* s = src.at(in->x1, y);
        float* d = cleaned.at(in->x1, y);
        for (int64_t i = 0; i < in->width() * n; ++i) d[i] = s[i] > 0.0f ? s[i] : kFar;
    }
    if (int status = ErodeOrDilate(out, &valid.image, -r, -r)) return status;
    for (int64_t y = out->y1; y < out->y2; ++y) {
        const float* s = src.at(out->x1, y);
        float* d = dst.at(out->x1, y);
        for (int64_t i = 0; i < out->width() * n; ++i)
            if (d[i] == kFar && !(s[i] > 0.0f)) d[i] = s[i];
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
