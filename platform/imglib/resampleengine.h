// The affine transform's row loop, vectorized for the best instruction set
// of the machine (chosen at run time), and the tap tables it reads.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "imglib/image.h"
#include "imglib/kernels.h"

namespace IMGLIB {

// Weights for one axis of a map whose footprint is known (the same at every
// pixel of an affine map, one of a few rounded ones for a projective map),
// so the taps depend only on the sample's phase within a pixel. One
// contiguous table, `stride` weights a phase.
class PhaseTable {
public:
    static constexpr int kPhases = 1024;

    // The kernel at `width` input pixels.
    PhaseTable(KernelType kernel, float width);
    // Taps for a sample at continuous coordinate c.
    int taps(float c, int64_t& first, const float*& w) const {
        const float shifted = c - 0.5f;
        float base = std::floor(shifted);
        int phase = static_cast<int>(std::nearbyint((shifted - base) * kPhases));
        if (phase == kPhases) {  // rounds up to the next pixel centre
            phase = 0;
            base += 1.0f;
        }
        first = static_cast<int64_t>(base) + m_first[static_cast<size_t>(phase)];
        w = m_weights.data() + phase * m_stride;
        return m_counts[static_cast<size_t>(phase)];
    }
    size_t bytes() const {
        return m_weights.size() * sizeof(float) + m_first.size() * sizeof(int64_t) +
               m_counts.size() * sizeof(int);
    }

private:
    std::vector<int64_t> m_first;
    std::vector<int> m_counts;
    std::vector<float> m_weights;
    int m_stride = 1;
};

// One output row of an affine transform of RGBA pixels: output pixel x
// samples the input at (u, v) = (px a + py b + c, px d + py e + f), with
// px = x + 0.5 and py = y + 0.5. Pixels whose taps leave the input are
// handed to `edge`, which filters them the slow way.
struct AffineRow {
    const PhaseTable* tapsX;
    const PhaseTable* tapsY;
    float a, b, c, d, e, f;
    const Image* in;  // RGBA
    float* dst;       // RGBA pixels x1 .. x2 - 1 of row y
    int64_t x1, x2, y;
    void (*edge)(const void* context, int64_t x, int64_t y, float* dst);
    const void* context;
};
void DispatchAffineRowRGBA(const AffineRow& row);

// One RGBA pixel's taps, wholly inside the input: nx x ny pixels from
// rowPtr with their weights.
struct PixelTaps {
    const float* rowPtr;
    const float* wx;
    const float* wy;
    int nx, ny;
    float* dst;
};
// Filters each pixel of `taps` (rows of the input rowFloats apart).
void DispatchFilterPixelsRGBA(const PixelTaps* taps, size_t count, int64_t rowFloats);

}  // namespace IMGLIB
