#include "workload.h"

#include <cmath>

namespace compare {

const char* workloadName(Workload workload) {
    switch (workload) {
        case Workload::ColourChain:
            return "ten colour corrections";
        case Workload::Blur:
            return "gaussian blur, sigma 10";
        case Workload::Rotate:
            return "rotate 17 deg, scale 0.9, bicubic";
        case Workload::Over:
            return "A over B";
        case Workload::Comp:
            return "full comp";
        case Workload::ResizeLanczos:
            return "resize to half, lanczos3";
        case Workload::ResizeCubic:
            return "resize to half, cubic";
        case Workload::Flip:
            return "flip";
        case Workload::Crop:
            return "crop the centre quarter";
        case Workload::Perspective:
            return "perspective keystone, bicubic";
    }
    return "";
}

double framesMoved(Workload workload) {
    switch (workload) {
        case Workload::Over:
        case Workload::Comp:
            return 3;
        case Workload::ResizeLanczos:
        case Workload::ResizeCubic:
            return 1.25;
        case Workload::Crop:
            return 0.5;
        default:
            return 2;
    }
}

bool memoryBound(Workload workload) {
    return workload == Workload::Over || workload == Workload::Flip || workload == Workload::Crop;
}

Area outputArea(Workload workload, int64_t width, int64_t height) {
    switch (workload) {
        case Workload::ResizeLanczos:
        case Workload::ResizeCubic:
            return {0, 0, width / 2, height / 2};
        case Workload::Crop:
            return {kCropX, kCropY, width / 2, height / 2};
        default:
            return {0, 0, width, height};
    }
}

std::array<double, 6> rotationMatrix(double width, double height) {
    const double angle = kRotateDegrees * M_PI / 180.0;
    const double c = std::cos(angle) * kRotateScale, s = std::sin(angle) * kRotateScale;
    const double cx = width / 2, cy = height / 2;
    // About the centre: p' = R S (p - centre) + centre.
    return {c, -s, cx - c * cx + s * cy, s, c, cy - s * cx - c * cy};
}

std::array<double, 9> perspectiveMatrix(double width, double height) {
    const double a = kTiltX / width, b = kTiltY / height;
    const double cx = width / 2, cy = height / 2;
    // About the centre: p' = T(centre) P T(-centre), P's last row (a, b, 1).
    const double shift = -a * cx - b * cy;
    return {1 + a * cx, b * cx, cx * shift, a * cy, 1 + b * cy, cy * shift, a, b, 1 + shift};
}

std::array<float, 9> perspectiveColumns(double width, double height) {
    const std::array<double, 9> m = perspectiveMatrix(width, height);
    std::array<float, 9> columns;
    for (size_t i = 0; i < 9; ++i) columns[i] = float(m[(i % 3) * 3 + i / 3]);
    return columns;
}

}  // namespace compare
