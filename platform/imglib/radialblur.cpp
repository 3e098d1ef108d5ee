#include "imglib/radialblur.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "imglib/neighbourhood.h"
#include "imglib/pixels.h"

namespace IMGLIB {

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Box {
    double x1 = 1e300, y1 = 1e300, x2 = -1e300, y2 = -1e300;
    void add(double x, double y) {
        x1 = std::min(x1, x), y1 = std::min(y1, y), x2 = std::max(x2, x), y2 = std::max(y2, y);
    }
};

// Where the points of a rectangle of pixel centres go under the blur's
// range of motions (scales or turns about the centre), or under their
// inverses: the corners' paths bound every point's, as each motion is
// linear about the centre.
Box motionBounds(const UTIL::Rect& rect, const RadialBlurParams& p, bool inverse) {
    Box box;
    const double corners[4][2] = {{rect.xmin + 0.5, rect.ymin + 0.5},
                                  {rect.xmax - 0.5, rect.ymin + 0.5},
                                  {rect.xmin + 0.5, rect.ymax - 0.5},
                                  {rect.xmax - 0.5, rect.ymax - 0.5}};
    for (const auto& corner : corners) {
        const double dx = corner[0] - p.centreX, dy = corner[1] - p.centreY;
        if (p.type == RADIAL_ZOOM) {
            for (double s : {1.0, 1.0 - double(p.amount)}) {
                const double k = inverse ? 1.0 / s : s;
                box.add(p.centreX + dx * k, p.centreY + dy * k);
            }
            continue;
        }
        // An arc of the turn's range (symmetric, so its own inverse): its
        // ends and the points where it crosses an axis direction.
        const double half = std::min(std::fabs(double(p.amount)), 360.0) * kPi / 360.0;
        const double radius = std::hypot(dx, dy), start = std::atan2(dy, dx);
        for (double a : {start - half, start + half})
            box.add(p.centreX + radius * std::cos(a), p.centreY + radius * std::sin(a));
        for (int quarter = -8; quarter <= 8; ++quarter) {
            const double a = quarter * kPi / 2;
            if (a >= start - half && a <= start + half)
                box.add(p.centreX + radius * std::cos(a), p.centreY + radius * std::sin(a));
        }
    }
    return box;
}

}  // namespace

int ValidateRadialBlurParams(const RadialBlurParams& p) {
    if (p.type != RADIAL_ZOOM && p.type != RADIAL_SPIN)
        return SetError(ERROR_INVALID_ARGUMENT,
                        "RadialBlur: unknown type " + std::to_string(int(p.type)));
    if (!std::isfinite(p.amount) || (p.type == RADIAL_ZOOM && p.amount >= 1.0f))
        return SetError(
            ERROR_INVALID_ARGUMENT,
            "RadialBlur: amount " + std::to_string(p.amount) +
                (p.type == RADIAL_ZOOM ? " (a zoom's must be below 1)" : " (must be finite)"));
    if (!std::isfinite(p.centreX) || !std::isfinite(p.centreY))
        return SetError(ERROR_INVALID_ARGUMENT, "RadialBlur: the centre must be finite");
    if (p.samples < 2 || p.samples > 4096)
        return SetError(ERROR_INVALID_ARGUMENT,
                        "RadialBlur: samples must be 2 to 4096, not " + std::to_string(p.samples));
    return ERROR_NONE;
}

void GetRadialBlurredRequiredInputRect(UTIL::Rect& in, const UTIL::Rect& out,
                                       const RadialBlurParams& params) {
    if (out.isNull() || params.amount == 0.0f) {
        in = out;
        return;
    }
    // Pixel centres to whole-number coordinates; bilinear reads reach the
    // next pixel up.
    const Box b = motionBounds(out, params, false);
    in = UTIL::Rect(int64_t(std::floor(b.x1 - 0.5)), int64_t(std::floor(b.y1 - 0.5)),
                    int64_t(std::floor(b.x2 - 0.5)) + 2, int64_t(std::floor(b.y2 - 0.5)) + 2);
}

void GetRadialBlurredOutputRect(const UTIL::Rect& in, UTIL::Rect& out,
                                const RadialBlurParams& params) {
    if (in.isNull() || params.amount == 0.0f) {
        out = in;
        return;
    }
    // A read anywhere within a pixel of the data touches it.
    const Box b = motionBounds(in.grown(1, 1), params, true);
    out = UTIL::Rect(int64_t(std::floor(b.x1)) - 1, int64_t(std::floor(b.y1)) - 1,
                     int64_t(std::ceil(b.x2)) + 1, int64_t(std::ceil(b.y2)) + 1);
}

int RadialBlur(const Image* out, const Image* in, const RadialBlurParams& params) {
    if (int status = ValidateRadialBlurParams(params)) return status;
    UTIL::Rect need;
    GetRadialBlurredRequiredInputRect(
        need,
        UTIL::Rect(out ? out->x1 : 0, out ? out->y1 : 0, out ? out->x2 : 0, out ? out->y2 : 0),
        params);
    if (int status = CheckNeighbourhood("RadialBlur", out, in, 0, 0)) return status;
    if (!UTIL::Rect(in->x1, in->y1, in->x2, in->y2).contains(need))
        return SetError(ERROR_OUT_OF_BOUNDS,
                        "RadialBlur: the input does not cover the output's blur paths");
    if (params.amount == 0.0f) return CopyInto(out, in);
    const PixelGrid src(in), dst(out);
    const int64_t samples = params.samples;
    // Each sample's motion, the same for every pixel: a scale, or a turn.
    std::vector<double> scale(static_cast<size_t>(samples)), cosine(scale), sine(scale);
    for (int64_t i = 0; i < samples; ++i) {
        const double t = double(i) / double(samples - 1);
        const double a = params.amount * (t - 0.5) * kPi / 180.0;
        scale[i] = 1.0 - params.amount * t;
        cosine[i] = std::cos(a), sine[i] = std::sin(a);
    }
    const float share = 1.0f / float(samples);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const double dx = x + 0.5 - params.centreX, dy = y + 0.5 - params.centreY;
            float* o = dst.at(x, y);
            std::fill(o, o + dst.n, 0.0f);
            for (size_t i = 0; i < scale.size(); ++i) {
                const double sx =
                    params.type == RADIAL_ZOOM ? dx * scale[i] : dx * cosine[i] - dy * sine[i];
                const double sy =
                    params.type == RADIAL_ZOOM ? dy * scale[i] : dx * sine[i] + dy * cosine[i];
                src.addSample(float(params.centreX + sx - 0.5), float(params.centreY + sy - 0.5),
                              share, o);
            }
        }
    return ERROR_NONE;
}

}  // namespace IMGLIB
