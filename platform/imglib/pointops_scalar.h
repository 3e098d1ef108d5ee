// Scalar forms of the pixel operators whose arithmetic branches too much to
// pay off in vector lanes: colour-space conversions and curves. Shared by
// every vector target of the engine.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace IMGLIB {
namespace scalar {

// RGB -> HSV, hue as a fraction of a turn in [0, 1).
inline void rgbToHsv(float r, float g, float b, float& h, float& s, float& v) {
    const float mx = std::max(r, std::max(g, b));
    const float mn = std::min(r, std::min(g, b));
    const float delta = mx - mn;
    v = mx;
    s = mx > 0.0f ? delta / mx : 0.0f;
    if (delta <= 0.0f) {
        h = 0.0f;
        return;
    }
    float sector;
    if (mx == r)
        sector = (g - b) / delta;
    else if (mx == g)
        sector = 2.0f + (b - r) / delta;
    else
        sector = 4.0f + (r - g) / delta;
    h = sector / 6.0f;
    if (h < 0.0f) h += 1.0f;
}

inline void hsvToRgb(float h, float s, float v, float& r, float& g, float& b) {
    h = (h - std::floor(h)) * 6.0f;
    const int sector = std::min(5, static_cast<int>(h));
    const float f = h - static_cast<float>(sector);
    const float p = v * (1.0f - s), q = v * (1.0f - s * f), t = v * (1.0f - s * (1.0f - f));
    switch (sector) {
        case 0:
            r = v, g = t, b = p;
            break;
        case 1:
            r = q, g = v, b = p;
            break;
        case 2:
            r = p, g = v, b = t;
            break;
        case 3:
            r = p, g = q, b = v;
            break;
        case 4:
            r = t, g = p, b = v;
            break;
        default:
            r = v, g = p, b = q;
            break;
    }
}

// Linear Rec.709 RGB (D65) <-> CIE L*a*b*, L* in [0, 100].
constexpr float kWhite[3] = {0.95047f, 1.0f, 1.08883f};

inline float labF(float t) {
    constexpr float e = 216.0f / 24389.0f, k = 24389.0f / 27.0f;
    return t > e ? std::cbrt(t) : (k * t + 16.0f) / 116.0f;
}

inline float labFInverse(float f) {
    constexpr float k = 24389.0f / 27.0f;
    const float f3 = f * f * f;
    return f3 > 216.0f / 24389.0f ? f3 : (116.0f * f - 16.0f) / k;
}

inline void rgbToLab(float r, float g, float b, float& L, float& A, float& B) {
    const float x = (0.4124564f * r + 0.3575761f * g + 0.1804375f * b) / kWhite[0];
    const float y = (0.2126729f * r + 0.7151522f * g + 0.0721750f * b) / kWhite[1];
    const float z = (0.0193339f * r + 0.1191920f * g + 0.9503041f * b) / kWhite[2];
    const float fx = labF(x), fy = labF(y), fz = labF(z);
    L = 116.0f * fy - 16.0f;
    A = 500.0f * (fx - fy);
    B = 200.0f * (fy - fz);
}

inline void labToRgb(float L, float A, float B, float& r, float& g, float& b) {
    const float fy = (L + 16.0f) / 116.0f;
    const float x = labFInverse(fy + A / 500.0f) * kWhite[0];
    const float y = labFInverse(fy) * kWhite[1];
    const float z = labFInverse(fy - B / 200.0f) * kWhite[2];
    r = 3.2404542f * x - 1.5371385f * y - 0.4985314f * z;
    g = -0.9692660f * x + 1.8760108f * y + 0.0415560f * z;
    b = 0.0556434f * x - 0.2040259f * y + 1.0572252f * z;
}

// A monotone cubic (Fritsch-Carlson) through (x, y) pairs sorted by x,
// continued as straight lines beyond the ends. No points: identity; one:
// a constant.
inline float evalCurve(const float* pts, int64_t n, float x) {
    if (n <= 0) return x;
    if (n == 1) return pts[1];
    auto px = [&](int64_t i) { return pts[2 * i]; };
    auto py = [&](int64_t i) { return pts[2 * i + 1]; };
    auto secant = [&](int64_t i) {
        const float dx = px(i + 1) - px(i);
        return dx != 0.0f ? (py(i + 1) - py(i)) / dx : 0.0f;
    };
    auto tangent = [&](int64_t i) {
        if (i == 0) return secant(0);
        if (i == n - 1) return secant(n - 2);
        // Fritsch-Butland: a weighted harmonic mean of the two secants, 0 at
        // an extremum, so the curve never overshoots its points.
        const float a = secant(i - 1), b = secant(i);
        if (a * b <= 0.0f) return 0.0f;
        const float h0 = px(i) - px(i - 1), h1 = px(i + 1) - px(i);
        return 3.0f * (h0 + h1) / ((2.0f * h1 + h0) / a + (h1 + 2.0f * h0) / b);
    };
    if (!(x > px(0))) return py(0) + (x - px(0)) * tangent(0);
    if (!(x < px(n - 1))) return py(n - 1) + (x - px(n - 1)) * tangent(n - 1);
    int64_t lo = 0, hi = n - 1;
    while (hi - lo > 1) {
        const int64_t mid = (lo + hi) / 2;
        (px(mid) <= x ? lo : hi) = mid;
    }
    const float h = px(hi) - px(lo);
    if (h <= 0.0f) return py(lo);
    const float t = (x - px(lo)) / h, t2 = t * t, t3 = t2 * t;
    return (2 * t3 - 3 * t2 + 1) * py(lo) + (t3 - 2 * t2 + t) * h * tangent(lo) +
           (-2 * t3 + 3 * t2) * py(hi) + (t3 - t2) * h * tangent(hi);
}

}  // namespace scalar
}  // namespace IMGLIB
