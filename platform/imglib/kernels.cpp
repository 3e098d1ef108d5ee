#include "imglib/kernels.h"

#include <cmath>

namespace IMGLIB {
namespace {

constexpr float kPi = 3.14159265358979f;

// Each on its natural domain: t in units where the support is [-1, 1]
// (or [-2, 2] for the cubics, [-3, 3] for Lanczos).
float cubic(float x, float B, float C) {
    x = std::fabs(x);
    const float x2 = x * x, x3 = x2 * x;
    if (x < 1.0f)
        return ((12 - 9 * B - 6 * C) * x3 + (-18 + 12 * B + 6 * C) * x2 + (6 - 2 * B)) / 6.0f;
    if (x < 2.0f)
        return ((-B - 6 * C) * x3 + (6 * B + 30 * C) * x2 + (-12 * B - 48 * C) * x +
                (8 * B + 24 * C)) /
               6.0f;
    return 0.0f;
}

float bspline(float x) {
    x = std::fabs(x);
    if (x <= 1.0f) {
        const float t = 1.0f - x;
        return 0.5f * t * (t * (1.0f - t) + 1.0f) + 1.0f / 6.0f;
    }
    if (x < 2.0f) {
        const float t = 2.0f - x;
        return t * t * t / 6.0f;
    }
    return 0.0f;
}

float lanczos3(float x) {
    x = std::fabs(x);
    if (x >= 3.0f) return 0.0f;
    if (x < 1e-4f) return 1.0f;
    // Exactly 0 at the other whole offsets, where float sin(pi k) is not:
    // an interpolating filter must give pixel centres back unchanged.
    if (x == std::floor(x)) return 0.0f;
    const float px = kPi * x;
    return 3.0f * std::sin(px) * std::sin(px / 3.0f) / (px * px);
}

float blackmanHarris(float x) {
    if (x < -1.0f || x > 1.0f) return 0.0f;
    x = (x + 1.0f) * 0.5f;
    const float c = std::cos(2 * kPi * x);
    const float c2 = 2 * c * c - 1, c3 = c * (2 * c2 - 1);
    return 0.35875f - 0.48829f * c + 0.14128f * c2 - 0.01168f * c3;
}

}  // namespace

float GetKernelWidth(KernelType kernel) {
    switch (kernel) {
        case KERNEL_NEAREST:
        case KERNEL_BOX:
            return 1.0f;
        case KERNEL_TRIANGLE:
            return 2.0f;
        case KERNEL_GAUSSIAN:
        case KERNEL_BLACKMAN_HARRIS:
            return 3.0f;
        case KERNEL_LANCZOS3:
            return 6.0f;
        default:
            return 4.0f;
    }
}

float EvalKernel(KernelType kernel, float x, float width) {
    const float half = 0.5f * width;
    if (!(std::fabs(x) <= half)) return 0.0f;
    const float t = x / half;  // [-1, 1]
    switch (kernel) {
        case KERNEL_NEAREST:
        case KERNEL_BOX:
            return 1.0f;
        case KERNEL_TRIANGLE:
            return 1.0f - std::fabs(t);
        case KERNEL_GAUSSIAN:
            return std::exp(-2.0f * t * t);
        case KERNEL_CATMULL_ROM:
            return cubic(2.0f * t, 0.0f, 0.5f);
        case KERNEL_MITCHELL:
            return cubic(2.0f * t, 1.0f / 3.0f, 1.0f / 3.0f);
        case KERNEL_LANCZOS3:
            return lanczos3(3.0f * t);
        case KERNEL_BLACKMAN_HARRIS:
            return blackmanHarris(t);
        case KERNEL_BSPLINE:
            return bspline(2.0f * t);
    }
    return 0.0f;
}

const char* GetKernelName(KernelType kernel) {
    static const char* const names[KERNEL_COUNT] = {
        "nearest",  "box",      "triangle",        "gaussian", "catmull-rom",
        "mitchell", "lanczos3", "blackman-harris", "b-spline"};
    return kernel >= 0 && kernel < KERNEL_COUNT ? names[kernel] : "unknown";
}

}  // namespace IMGLIB
