// An RGBA float image in memory, rows packed: the decoded input every
// library starts from, and the output each hands back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "imglib/image.h"

namespace compare {

struct Picture {
    // Pixels [x0, x0 + width) x [y0, y0 + height).
    Picture(int64_t width, int64_t height, int64_t x0 = 0, int64_t y0 = 0);
    Picture(const Picture&) = delete;
    Picture& operator=(const Picture&) = delete;

    int64_t width, height, x0, y0;
    std::vector<float> pixels;
    IMGLIB::Image image;  // the same pixels as an IMGLIB record over its area

    size_t bytes() const { return pixels.size() * sizeof(float); }
    size_t rowBytes() const { return static_cast<size_t>(width) * 16; }
};

// Generated inputs: smooth gradients with fine detail, values in [0.05, 0.95]
// (so the power steps stay real), alpha 1 or a pattern of soft holes
// (premultiplied colour).
void fillInput(Picture& picture, unsigned seed, bool withAlpha);

// How far apart two results are, over every channel of every pixel.
struct Agreement {
    double maxAbs = 0, meanAbs = 0;
};
Agreement compare(const Picture& a, const Picture& b);

}  // namespace compare
