// The affine transform's RGBA row loop, compiled once per instruction set.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "imglib/resample_kernels.cpp"
#include <hwy/foreach_target.h>  // NOLINT: must come before highway.h

#include <hwy/highway.h>

#include "imglib/pixels.h"
#include "imglib/resampleengine.h"

HWY_BEFORE_NAMESPACE();
namespace IMGLIB {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// One RGBA pixel from an nx x ny block of taps starting at rowPtr; NX
// fixed lets the compiler unroll the row (0: any count). Where vectors hold
// eight floats, two rows are filtered at once, each in one half.
template <int NX>
HWY_INLINE void FilterPixel(const float* rowPtr, int64_t rowFloats, int nx, const float* wx, int ny,
                            const float* wy, float* dst) {
    const int n = NX > 0 ? NX : nx;
#if HWY_TARGET == HWY_SCALAR  // no vector of four floats
    float total[4] = {};
    for (int j = 0; j < ny; ++j, rowPtr += rowFloats) {
        float row[4] = {};
        for (int i = 0; i < n; ++i)
            for (int c = 0; c < 4; ++c) row[c] += wx[i] * rowPtr[4 * i + c];
        for (int c = 0; c < 4; ++c) total[c] += wy[j] * row[c];
    }
    for (int c = 0; c < 4; ++c) dst[c] = total[c];
#else
    const hn::CappedTag<float, 4> d4;
    auto total = hn::Zero(d4);
    int j = 0;
#if HWY_ARCH_X86 && HWY_TARGET <= HWY_AVX2
    const hn::FixedTag<float, 8> d8;
    auto total8 = hn::Zero(d8);
    for (; j + 2 <= ny; j += 2, rowPtr += 2 * rowFloats) {
        auto rows = hn::Zero(d8);
#pragma GCC unroll 8
        for (int i = 0; i < n; ++i) {
            const auto pair = hn::Combine(d8, hn::LoadU(d4, rowPtr + rowFloats + 4 * i),
                                          hn::LoadU(d4, rowPtr + 4 * i));
            rows = hn::MulAdd(hn::Set(d8, wx[i]), pair, rows);
        }
        const auto weights = hn::Combine(d8, hn::Set(d4, wy[j + 1]), hn::Set(d4, wy[j]));
        total8 = hn::MulAdd(weights, rows, total8);
    }
    total = hn::Add(hn::LowerHalf(d4, total8), hn::UpperHalf(d4, total8));
#endif
    for (; j < ny; ++j, rowPtr += rowFloats) {
        auto row = hn::Zero(d4);
#pragma GCC unroll 8
        for (int i = 0; i < n; ++i)
            row = hn::MulAdd(hn::Set(d4, wx[i]), hn::LoadU(d4, rowPtr + 4 * i), row);
        total = hn::MulAdd(hn::Set(d4, wy[j]), row, total);
    }
    hn::StoreU(total, d4, dst);
#endif
}

// The common widths (cubic filters, slightly widened) unrolled.
HWY_INLINE void FilterAnyPixel(const float* rowPtr, int64_t rowFloats, int nx, const float* wx,
                               int ny, const float* wy, float* dst) {
    switch (nx) {
        case 4:
            FilterPixel<4>(rowPtr, rowFloats, nx, wx, ny, wy, dst);
            break;
        case 5:
            FilterPixel<5>(rowPtr, rowFloats, nx, wx, ny, wy, dst);
            break;
        case 6:
            FilterPixel<6>(rowPtr, rowFloats, nx, wx, ny, wy, dst);
            break;
        default:
            FilterPixel<0>(rowPtr, rowFloats, nx, wx, ny, wy, dst);
            break;
    }
}

void AffineRowRGBA(const AffineRow& r) {
    const Image* in = r.in;
    const int64_t rowFloats = in->rowBytes / 4;
    const float py = float(r.y) + 0.5f;
    float* dst = r.dst;
    for (int64_t x = r.x1; x < r.x2; ++x, dst += 4) {
        // Computed from the pixel's own coordinates, never accumulated
        // along the row: a pixel gets the same value in any tile.
        const float px = float(x) + 0.5f;
        const float u = px * r.a + py * r.b + r.c;
        const float v = px * r.d + py * r.e + r.f;
        int64_t x0, y0;
        const float *wx, *wy;
        const int nx = r.tapsX->taps(u, x0, wx), ny = r.tapsY->taps(v, y0, wy);
        if (x0 < in->x1 || y0 < in->y1 || x0 + nx > in->x2 || y0 + ny > in->y2) {
            r.edge(r.context, x, r.y, dst);
            continue;
        }
        FilterAnyPixel(GetPixelAddress(in, x0, y0, 16), rowFloats, nx, wx, ny, wy, dst);
    }
}

void FilterPixelsRGBA(const PixelTaps* taps, size_t count, int64_t rowFloats) {
    for (size_t i = 0; i < count; ++i) {
        const PixelTaps& t = taps[i];
        FilterAnyPixel(t.rowPtr, rowFloats, t.nx, t.wx, t.ny, t.wy, t.dst);
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace IMGLIB
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace IMGLIB {

HWY_EXPORT(AffineRowRGBA);
HWY_EXPORT(FilterPixelsRGBA);

void DispatchAffineRowRGBA(const AffineRow& row) {
    HWY_DYNAMIC_DISPATCH(AffineRowRGBA)(row);
}

void DispatchFilterPixelsRGBA(const PixelTaps* taps, size_t count, int64_t rowFloats) {
    HWY_DYNAMIC_DISPATCH(FilterPixelsRGBA)(taps, count, rowFloats);
}

}  // namespace IMGLIB
#endif
