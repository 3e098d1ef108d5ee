#include "imglib/perimeter.h"

#include <algorithm>
#include <vector>

#include "imglib/neighbourhood.h"
#include "imglib/pixels.h"

namespace IMGLIB {

int64_t GetPerimeterPadding(float distance) {
    return ReachPixels(distance);
}

int ExtendImagePerimeter(const Image* out, const Image* in, float distance) {
    const int64_t pad = GetPerimeterPadding(distance);
    if (int status = CheckNeighbourhood("ExtendImagePerimeter", out, in, pad, pad)) return status;
    const int alpha = GetChannelIndex(in->channels, CHANNEL_A);
    if (alpha < 0 || pad == 0) return CopyInto(out, in);
    // Offsets within reach, nearest first.
    struct Offset {
        int64_t dx, dy, d2;
    };
    std::vector<Offset> offsets;
    const double limit = double(distance) * double(distance);
    for (int64_t dy = -pad; dy <= pad; ++dy)
        for (int64_t dx = -pad; dx <= pad; ++dx)
            if ((dx || dy) && double(dx * dx + dy * dy) <= limit)
                offsets.push_back({dx, dy, dx * dx + dy * dy});
    std::stable_sort(offsets.begin(), offsets.end(),
                     [](const Offset& a, const Offset& b) { return a.d2 < b.d2; });
    int colour[3];
    const int colours = ColourSlots(in->channels, colour);
    const PixelGrid src(in), dst(out);
    const auto opaque = [&](const float* p) { return p[alpha] > 0.0f; };
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            const float* p = src.at(x, y);
            float* o = dst.at(x, y);
            std::copy(p, p + dst.n, o);
            if (opaque(p)) continue;
            for (const Offset& offset : offsets) {
                const float* q = src.at(x + offset.dx, y + offset.dy);
                if (!opaque(q)) continue;
                std::copy(q, q + dst.n, o);
                for (int i = 0; i < colours; ++i) o[colour[i]] = q[colour[i]] / q[alpha];
                o[alpha] = p[alpha];
                break;
            }
        }
    return ERROR_NONE;
}

}  // namespace IMGLIB
