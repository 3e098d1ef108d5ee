#include "picture.h"

#include <algorithm>
#include <cmath>

#include "imglib/channels.h"

namespace compare {

Picture::Picture(int64_t width, int64_t height, int64_t x0, int64_t y0)
    : width(width),
      height(height),
      x0(x0),
      y0(y0),
      pixels(static_cast<size_t>(width * height * 4)) {
    image.channels = IMGLIB::CHANNELS_RGBA;
    image.x1 = x0;
    image.y1 = y0;
    image.x2 = x0 + width;
    image.y2 = y0 + height;
    image.rowBytes = width * 16;
    image.pixelPtr = pixels.data();
}

void fillInput(Picture& picture, unsigned seed, bool withAlpha) {
    const double phase = seed * 0.7;
    for (int64_t y = 0; y < picture.height; ++y) {
        float* row = picture.pixels.data() + y * picture.width * 4;
        for (int64_t x = 0; x < picture.width; ++x) {
            const double u = double(x) / double(picture.width),
                         v = double(y) / double(picture.height);
            const double detail = 0.1 * std::sin(x * 0.37 + phase) * std::cos(y * 0.23 - phase);
            float alpha = 1.0f;
            if (withAlpha) {
                const double ring = std::sin(u * 23.0 + phase) * std::sin(v * 17.0 - phase);
                alpha = float(std::clamp(0.5 + 0.6 * ring, 0.0, 1.0));
            }
            for (int c = 0; c < 3; ++c) {
                const double base = 0.5 + 0.3 * std::sin((u * (c + 2) + v * (3 - c)) * 3.1 + phase);
                row[x * 4 + c] = float(std::clamp(base + detail, 0.05, 0.95)) * alpha;
            }
            row[x * 4 + 3] = alpha;
        }
    }
}

Agreement compare(const Picture& a, const Picture& b) {
    Agreement result;
    double sum = 0;
    const size_t n = std::min(a.pixels.size(), b.pixels.size());
    for (size_t i = 0; i < n; ++i) {
        const double d = std::abs(double(a.pixels[i]) - double(b.pixels[i]));
        // A NaN on either side counts as the largest difference.
        result.maxAbs = std::isnan(d) ? INFINITY : std::max(result.maxAbs, d);
        sum += std::isnan(d) ? 1.0 : d;
    }
    result.meanAbs = n ? sum / double(n) : 0.0;
    return result;
}

}  // namespace compare
