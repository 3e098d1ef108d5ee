// The vectorized convolution behind FastFilter, compiled once per
// instruction set and chosen at run time.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "imglib/filter_kernels.cpp"
#include <hwy/foreach_target.h>  // NOLINT: must come before highway.h

#include <hwy/highway.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "imglib/channels.h"
#include "imglib/filterengine.h"
#include "imglib/pixels.h"

HWY_BEFORE_NAMESPACE();
namespace IMGLIB {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Symmetric weights: w[pad + d] == w[pad - d], so each pair shares a multiply.
bool symmetric(const float* w, int64_t pad) {
    for (int64_t d = 1; d <= pad; ++d)
        if (w[pad + d] != w[pad - d]) return false;
    return true;
}

// A loaded vector the kernels keep for a later step: held in a register, so
// that the compiler does not fold the load into the add that uses it and
// then load the same vector again for the next step, which doubles the
// loads of kernels that are bound by them.
template <class V>
HWY_INLINE V loaded(V v) {
#if HWY_ARCH_X86 && HWY_TARGET != HWY_SCALAR && HWY_TARGET != HWY_EMU128
    asm("" : "+v"(v.raw));
#endif
    return v;
}

// Taps of `Blocks` neighbouring output vectors at once: each has one sum,
// built in the same order (centre, then taps outwards), so a pixel gets the
// same value in a block, alone, or in a one-lane remainder, and a tile
// equals the whole frame. Several blocks side by side keep the multiply-add
// units busy while each sum waits on its previous step.
template <size_t Blocks, class D>
HWY_INLINE void convolveBlocks(D d, float* dst, const float* s, ptrdiff_t step, const float* w,
                               int64_t pad, bool sym) {
    const size_t N = hn::Lanes(d);
    using V = hn::Vec<D>;
    V acc[Blocks];
    const V centre = hn::Set(d, w[pad]);
#pragma GCC unroll 8
    for (size_t b = 0; b < Blocks; ++b) acc[b] = hn::Mul(centre, hn::LoadU(d, s + b * N));
    for (int64_t k = 1; k <= pad; ++k) {
        const float* ahead = s + k * step;
        const float* behind = s - k * step;
        const V wa = hn::Set(d, w[pad + k]);
        if (sym) {
#pragma GCC unroll 8
            for (size_t b = 0; b < Blocks; ++b)
                acc[b] = hn::MulAdd(
                    wa, hn::Add(hn::LoadU(d, ahead + b * N), hn::LoadU(d, behind + b * N)), acc[b]);
        } else {
            const V wb = hn::Set(d, w[pad - k]);
#pragma GCC unroll 8
            for (size_t b = 0; b < Blocks; ++b)
                acc[b] = hn::MulAdd(wa, hn::LoadU(d, ahead + b * N),
                                    hn::MulAdd(wb, hn::LoadU(d, behind + b * N), acc[b]));
        }
    }
#pragma GCC unroll 8
    for (size_t b = 0; b < Blocks; ++b) hn::StoreU(acc[b], d, dst + b * N);
}

// Two pairs of output vectors N = M taps apart (i and i + N, i + 2N and
// i + 3N) of a symmetric FIR: the tap k steps ahead of the second of a pair
// is the first's tap k - M steps ahead, so each step loads one vector per
// output instead of two, the rest coming from rings of the last M loads.
// Sums are built in convolveBlocks' order, so pixels are the same.
template <size_t M, class D>
HWY_INLINE void convolvePairs(D d, float* dst, const float* s, ptrdiff_t step, const float* w,
                              int64_t pad) {
    const size_t N = hn::Lanes(d);
    using V = hn::Vec<D>;
    constexpr size_t kPairs = 2;
    V accA[kPairs], accB[kPairs], left[kPairs][M], right[kPairs][M];
    const V centre = hn::Set(d, w[pad]);
#pragma GCC unroll 2
    for (size_t p = 0; p < kPairs; ++p) {
        const float* x = s + 2 * p * N;  // X_t = x[t * step], X_M starts the pair's second
        // right[k % M] holds X_(M + k - M) = X_k, left[k % M] holds X_(M - k), for the
        // k in 1 .. M the first steps need before any load refills them.
#pragma GCC unroll 16
        for (size_t j = 0; j < M; ++j) {
            right[p][j] = hn::LoadU(d, x + static_cast<ptrdiff_t>(j == 0 ? M : j) * step);
            left[p][j] = hn::LoadU(d, x + static_cast<ptrdiff_t>(j == 0 ? 0 : M - j) * step);
        }
        accA[p] = hn::Mul(centre, left[p][0]);   // X_0
        accB[p] = hn::Mul(centre, right[p][0]);  // X_M
    }
    for (int64_t k0 = 0; k0 <= pad; k0 += static_cast<int64_t>(M)) {
#pragma GCC unroll 16
        for (size_t j = 0; j < M; ++j) {
            const int64_t k = k0 + static_cast<int64_t>(j);
            if (k == 0 || k > pad) continue;
            const V wk = hn::Set(d, w[pad + k]);
#pragma GCC unroll 2
            for (size_t p = 0; p < kPairs; ++p) {
                const float* x = s + 2 * p * N;
                const V l = loaded(hn::LoadU(d, x - k * step));  // X_-k
                const V r =
                    loaded(hn::LoadU(d, x + (static_cast<int64_t>(M) + k) * step));  // X_(M+k)
                accA[p] = hn::MulAdd(wk, hn::Add(right[p][j], l), accA[p]);          // X_k + X_-k
                accB[p] = hn::MulAdd(wk, hn::Add(r, left[p][j]), accB[p]);  // X_(M+k) + X_(M-k)
                left[p][j] = l;
                right[p][j] = r;
            }
        }
    }
#pragma GCC unroll 2
    for (size_t p = 0; p < kPairs; ++p) {
        hn::StoreU(accA[p], d, dst + 2 * p * N);
        hn::StoreU(accB[p], d, dst + (2 * p + 1) * N);
    }
}

// The general FIR over `count` outputs whose taps are `step` floats apart.
void convolve(float* dst, const float* src, size_t count, ptrdiff_t step, const float* w,
              int64_t pad) {
    const hn::ScalableTag<float> d;
    const hn::CappedTag<float, 1> one;
    const size_t N = hn::Lanes(d);
    const bool sym = symmetric(w, pad);
    size_t i = 0;
    if (sym && step > 0 && static_cast<size_t>(step) * 4 == N)
        for (; i + 4 * N <= count; i += 4 * N) convolvePairs<4>(d, dst + i, src + i, step, w, pad);
    else if (sym && step > 0 && static_cast<size_t>(step) * 2 == N)
        for (; i + 4 * N <= count; i += 4 * N) convolvePairs<2>(d, dst + i, src + i, step, w, pad);
    for (; i + 4 * N <= count; i += 4 * N)
        convolveBlocks<4>(d, dst + i, src + i, step, w, pad, sym);
    for (; i + N <= count; i += N) convolveBlocks<1>(d, dst + i, src + i, step, w, pad, sym);
    for (; i < count; ++i) convolveBlocks<1>(one, dst + i, src + i, step, w, pad, sym);
}

// Two neighbouring output rows of a symmetric vertical FIR at once: row y
// pairs rows y - k and y + k, row y + 1 pairs y + 1 - k and y + 1 + k, so
// each step loads two rows and each loaded row serves both outputs (half
// the loads of one row at a time). Each sum is built in the same order as
// convolveBlocks builds it, so pixels do not depend on the pairing.
template <class D>
HWY_INLINE void convolveRowPair(D d, float* dstA, float* dstB, const float* s, ptrdiff_t step,
                                const float* w, int64_t pad) {
    constexpr size_t kBlocks = 4;
    const size_t N = hn::Lanes(d);
    using V = hn::Vec<D>;
    V accA[kBlocks], accB[kBlocks], lastL[kBlocks], lastR[kBlocks];
    const V centre = hn::Set(d, w[pad]);
#pragma GCC unroll 8
    for (size_t b = 0; b < kBlocks; ++b) {
        lastL[b] = hn::LoadU(d, s + b * N);         // row y
        lastR[b] = hn::LoadU(d, s + step + b * N);  // row y + 1
        accA[b] = hn::Mul(centre, lastL[b]);
        accB[b] = hn::Mul(centre, lastR[b]);
    }
    for (int64_t k = 1; k <= pad; ++k) {
        const V wk = hn::Set(d, w[pad + k]);
        const float* left = s - k * step;         // row y - k
        const float* right = s + (k + 1) * step;  // row y + 1 + k
#pragma GCC unroll 8
        for (size_t b = 0; b < kBlocks; ++b) {
            const V l = hn::LoadU(d, left + b * N), r = hn::LoadU(d, right + b * N);
            accA[b] = hn::MulAdd(wk, hn::Add(lastR[b], l), accA[b]);  // y + k, y - k
            accB[b] = hn::MulAdd(wk, hn::Add(r, lastL[b]), accB[b]);  // y + 1 + k, y + 1 - k
            lastL[b] = l;
            lastR[b] = r;
        }
    }
#pragma GCC unroll 8
    for (size_t b = 0; b < kBlocks; ++b) {
        hn::StoreU(accA[b], d, dstA + b * N);
        hn::StoreU(accB[b], d, dstB + b * N);
    }
}

void FilterRow(float* dst, const float* src, size_t count, int stride, const float* w,
               int64_t pad) {
    if (pad == 0) {
        std::memmove(dst, src, count * sizeof(float));
        return;
    }
    convolve(dst, src, count, stride, w, pad);
}

void FilterColumns(const Image* out, const float* src, size_t srcStride, size_t rowFloats,
                   const float* w, int64_t pad) {
    const int64_t rows = out->height();
    const int64_t pixelBytes = GetPixelBytes(out->channels);
    // Down strips narrow enough that the rows one output row reads stay in
    // the first-level cache while the next row reuses all but one of them;
    // symmetric kernels make two rows at a time.
    constexpr size_t kStrip = 64;
    const hn::ScalableTag<float> d;
    const size_t block = 4 * hn::Lanes(d);
    const bool sym = symmetric(w, pad);
    const ptrdiff_t step = static_cast<ptrdiff_t>(srcStride);
    for (size_t x = 0; x < rowFloats; x += kStrip) {
        const size_t width = std::min(kStrip, rowFloats - x);
        const size_t paired = sym ? width / block * block : 0;
        int64_t y = 0;
        for (; paired && y + 1 < rows; y += 2) {
            float* a = GetPixelAddress(out, out->x1, out->y1 + y, pixelBytes) + x;
            float* b = GetPixelAddress(out, out->x1, out->y1 + y + 1, pixelBytes) + x;
            const float* s = src + y * step + x;
            for (size_t i = 0; i < paired; i += block)
                convolveRowPair(d, a + i, b + i, s + i, step, w, pad);
            if (paired < width) {
                convolve(a + paired, s + paired, width - paired, step, w, pad);
                convolve(b + paired, s + step + paired, width - paired, step, w, pad);
            }
        }
        for (; y < rows; ++y)
            convolve(GetPixelAddress(out, out->x1, out->y1 + y, pixelBytes) + x, src + y * step + x,
                     width, step, w, pad);
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace IMGLIB
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace IMGLIB {

HWY_EXPORT(FilterRow);
HWY_EXPORT(FilterColumns);

void DispatchFilterRow(float* dst, const float* src, size_t count, int stride, const float* w,
                       int64_t pad) {
    HWY_DYNAMIC_DISPATCH(FilterRow)(dst, src, count, stride, w, pad);
}

void DispatchFilterColumns(const Image* out, const float* src, size_t srcStride, size_t rowFloats,
                           const float* w, int64_t pad) {
    HWY_DYNAMIC_DISPATCH(FilterColumns)(out, src, srcStride, rowFloats, w, pad);
}

}  // namespace IMGLIB
#endif
