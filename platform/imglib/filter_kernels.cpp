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

// Taps of one output group, the same instructions whatever the group's width
// (so a pixel gets the same value at a row's end as in its middle, and a
// tile equals the whole frame).
template <class D>
HWY_INLINE void convolveGroup(D d, float* dst, const float* s, ptrdiff_t step, const float* w,
                              int64_t pad, bool sym) {
    // Four independent sums, so consecutive multiply-adds do not wait on
    // each other's results; joined in a fixed order at the end.
    auto acc0 = hn::Mul(hn::Set(d, w[pad]), hn::LoadU(d, s));
    auto acc1 = hn::Zero(d), acc2 = hn::Zero(d), acc3 = hn::Zero(d);
    auto tap = [&](int64_t k, auto& acc) {
        if (sym)
            acc = hn::MulAdd(hn::Set(d, w[pad + k]),
                             hn::Add(hn::LoadU(d, s + k * step), hn::LoadU(d, s - k * step)), acc);
        else
            acc = hn::MulAdd(hn::Set(d, w[pad + k]), hn::LoadU(d, s + k * step),
                             hn::MulAdd(hn::Set(d, w[pad - k]), hn::LoadU(d, s - k * step), acc));
    };
    int64_t k = 1;
    for (; k + 3 <= pad; k += 4) {
        tap(k, acc0);
        tap(k + 1, acc1);
        tap(k + 2, acc2);
        tap(k + 3, acc3);
    }
    for (; k <= pad; ++k) tap(k, acc1);
    hn::StoreU(hn::Add(hn::Add(acc0, acc1), hn::Add(acc2, acc3)), d, dst);
}

// The general FIR over `count` outputs whose taps are `step` floats apart.
void convolve(float* dst, const float* src, size_t count, ptrdiff_t step, const float* w,
              int64_t pad) {
    const hn::ScalableTag<float> d;
    const hn::CappedTag<float, 1> one;
    const size_t N = hn::Lanes(d);
    const bool sym = symmetric(w, pad);
    size_t i = 0;
    for (; i + N <= count; i += N) convolveGroup(d, dst + i, src + i, step, w, pad, sym);
    for (; i < count; ++i) convolveGroup(one, dst + i, src + i, step, w, pad, sym);
}

// A box as a running sum: the window's whole pixels plus the two partial
// end weights; the cost does not grow with the box.
void boxSum(float* dst, const float* src, size_t count, ptrdiff_t step, size_t lanes,
            const float* w, int64_t pad) {
    // `lanes` independent sums side by side (channels of a row, or a row of
    // pixels for the vertical pass); `count` outputs per lane.
    const float inner = w[pad], edge = w[0];
    for (size_t lane = 0; lane < lanes; ++lane) {
        const float* s = src + lane;
        float sum = 0.0f;  // the pixels -pad+1 .. pad-1 around the first output
        for (int64_t k = -pad + 1; k <= pad - 1; ++k) sum += s[k * step];
        for (size_t i = 0; i < count; ++i) {
            const float* c = s + static_cast<ptrdiff_t>(i) * step;
            dst[lane + i * static_cast<size_t>(step)] =
                inner * sum + edge * (c[-pad * step] + c[pad * step]);
            sum += c[pad * step] - c[(-pad + 1) * step];
        }
    }
}

void FilterRow(float* dst, const float* src, size_t count, int stride, const float* w, int64_t pad,
               bool box) {
    if (pad == 0) {
        std::memmove(dst, src, count * sizeof(float));
        return;
    }
    if (box) {
        boxSum(dst, src, count / static_cast<size_t>(stride), stride, static_cast<size_t>(stride),
               w, pad);
        return;
    }
    convolve(dst, src, count, stride, w, pad);
}

void FilterColumns(const Image* out, const float* src, size_t srcStride, size_t rowFloats,
                   const float* w, int64_t pad, bool box) {
    const int64_t rows = out->height();
    const int64_t pixelBytes = GetPixelBytes(out->channels);
    if (box && pad > 0) {
        // A running sum down each column, all columns of a row at once.
        std::vector<float> sum(rowFloats, 0.0f);
        const float inner = w[pad], edge = w[0];
        for (int64_t k = -pad + 1; k <= pad - 1; ++k) {
            const float* r = src + k * static_cast<ptrdiff_t>(srcStride);
            for (size_t i = 0; i < rowFloats; ++i) sum[i] += r[i];
        }
        for (int64_t y = 0; y < rows; ++y) {
            float* dst = GetPixelAddress(out, out->x1, out->y1 + y, pixelBytes);
            const float* centre = src + y * static_cast<ptrdiff_t>(srcStride);
            const float* up = centre - pad * static_cast<ptrdiff_t>(srcStride);
            const float* down = centre + pad * static_cast<ptrdiff_t>(srcStride);
            const float* leaving = centre - (pad - 1) * static_cast<ptrdiff_t>(srcStride);
            for (size_t i = 0; i < rowFloats; ++i) {
                dst[i] = inner * sum[i] + edge * (up[i] + down[i]);
                sum[i] += down[i] - leaving[i];
            }
        }
        return;
    }
    // Down strips narrow enough that the rows one output row reads stay in
    // the first-level cache while the next row reuses all but one of them.
    constexpr size_t kStrip = 256;
    for (size_t x = 0; x < rowFloats; x += kStrip) {
        const size_t width = std::min(kStrip, rowFloats - x);
        for (int64_t y = 0; y < rows; ++y)
            convolve(GetPixelAddress(out, out->x1, out->y1 + y, pixelBytes) + x,
                     src + y * static_cast<ptrdiff_t>(srcStride) + x, width,
                     static_cast<ptrdiff_t>(srcStride), w, pad);
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
                       int64_t pad, bool box) {
    HWY_DYNAMIC_DISPATCH(FilterRow)(dst, src, count, stride, w, pad, box);
}

void DispatchFilterColumns(const Image* out, const float* src, size_t srcStride, size_t rowFloats,
                           const float* w, int64_t pad, bool box) {
    HWY_DYNAMIC_DISPATCH(FilterColumns)(out, src, srcStride, rowFloats, w, pad, box);
}

}  // namespace IMGLIB
#endif
