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
    }
    return "";
}

int framesMoved(Workload workload) {
    return workload == Workload::Over || workload == Workload::Comp ? 3 : 2;
}

std::array<double, 6> rotationMatrix(double width, double height) {
    const double angle = kRotateDegrees * M_PI / 180.0;
    const double c = std::cos(angle) * kRotateScale, s = std::sin(angle) * kRotateScale;
    const double cx = width / 2, cy = height / 2;
    // About the centre: p' = R S (p - centre) + centre.
    return {c, -s, cx - c * cx + s * cy, s, c, cy - s * cx - c * cy};
}

}  // namespace compare
