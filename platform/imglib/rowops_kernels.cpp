// The row primitives, compiled once per instruction set.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "imglib/rowops_kernels.cpp"
#include <hwy/foreach_target.h>  // NOLINT: must come before highway.h

#include <hwy/cache_control.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>

#include "imglib/rowops.h"

HWY_BEFORE_NAMESPACE();
namespace IMGLIB {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

void MulAddRow(float* dst, const float* src, float w, size_t count) {
    const hn::ScalableTag<float> d;
    const size_t N = hn::Lanes(d);
    const auto weight = hn::Set(d, w);
    size_t i = 0;
    for (; i + N <= count; i += N)
        hn::StoreU(hn::MulAdd(weight, hn::LoadU(d, src + i), hn::LoadU(d, dst + i)), d, dst + i);
    // The remainder through the same multiply-add, so a float's value does
    // not depend on where the row ends.
    const hn::CappedTag<float, 1> one;
    for (; i < count; ++i)
        hn::StoreU(hn::MulAdd(hn::Set(one, w), hn::LoadU(one, src + i), hn::LoadU(one, dst + i)),
                   one, dst + i);
}

void ExtremeRow(float* dst, const float* a, const float* b, size_t count, bool dilate) {
    const hn::ScalableTag<float> d;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    if (dilate) {
        for (; i + N <= count; i += N)
            hn::StoreU(
                hn::Max(hn::LoadU(d, dst + i), hn::Max(hn::LoadU(d, a + i), hn::LoadU(d, b + i))),
                d, dst + i);
        for (; i < count; ++i) dst[i] = std::max(dst[i], std::max(a[i], b[i]));
    } else {
        for (; i + N <= count; i += N)
            hn::StoreU(
                hn::Min(hn::LoadU(d, dst + i), hn::Min(hn::LoadU(d, a + i), hn::LoadU(d, b + i))),
                d, dst + i);
        for (; i < count; ++i) dst[i] = std::min(dst[i], std::min(a[i], b[i]));
    }
}

void AddDifferenceRow(double* acc, const double* hi, const double* lo, size_t count) {
    const hn::ScalableTag<double> d;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    for (; i + N <= count; i += N)
        hn::StoreU(
            hn::Add(hn::LoadU(d, acc + i), hn::Sub(hn::LoadU(d, hi + i), hn::LoadU(d, lo + i))), d,
            acc + i);
    for (; i < count; ++i) acc[i] += hi[i] - lo[i];
}

void MulAddWidenRow(double* acc, const float* src, float w, size_t count) {
    const hn::ScalableTag<double> d;
    const hn::Rebind<float, decltype(d)> f;
    const size_t N = hn::Lanes(d);
    const auto weight = hn::Set(d, double(w));
    size_t i = 0;
    for (; i + N <= count; i += N)
        hn::StoreU(
            hn::MulAdd(weight, hn::PromoteTo(d, hn::LoadU(f, src + i)), hn::LoadU(d, acc + i)), d,
            acc + i);
    for (; i < count; ++i) acc[i] = std::fma(double(w), double(src[i]), acc[i]);
}

void FloatToHalfRow(uint16_t* dst, const float* src, size_t count) {
    const hn::ScalableTag<float> d;
    const hn::Rebind<hwy::float16_t, decltype(d)> h;
    const size_t N = hn::Lanes(d);
    auto* out = reinterpret_cast<hwy::float16_t*>(dst);
    size_t i = 0;
    for (; i + N <= count; i += N) hn::StoreU(hn::DemoteTo(h, hn::LoadU(d, src + i)), h, out + i);
    const hn::CappedTag<float, 1> one;
    const hn::Rebind<hwy::float16_t, decltype(one)> oneHalf;
    for (; i < count; ++i)
        hn::StoreU(hn::DemoteTo(oneHalf, hn::LoadU(one, src + i)), oneHalf, out + i);
}

void HalfToFloatRow(float* dst, const uint16_t* src, size_t count) {
    const hn::ScalableTag<float> d;
    const hn::Rebind<hwy::float16_t, decltype(d)> h;
    const size_t N = hn::Lanes(d);
    const auto* in = reinterpret_cast<const hwy::float16_t*>(src);
    size_t i = 0;
    for (; i + N <= count; i += N) hn::StoreU(hn::PromoteTo(d, hn::LoadU(h, in + i)), d, dst + i);
    const hn::CappedTag<float, 1> one;
    const hn::Rebind<hwy::float16_t, decltype(one)> oneHalf;
    for (; i < count; ++i) hn::StoreU(hn::PromoteTo(one, hn::LoadU(oneHalf, in + i)), one, dst + i);
}

// The median-of-nine network (Devillard): 19 compare-exchanges.
constexpr int kMedian9[19][2] = {{1, 2}, {4, 5}, {7, 8}, {0, 1}, {3, 4}, {6, 7}, {1, 2},
                                 {4, 5}, {7, 8}, {0, 3}, {5, 8}, {4, 7}, {3, 6}, {1, 4},
                                 {2, 5}, {4, 7}, {4, 2}, {6, 4}, {4, 2}};

template <class D, class V>
HWY_INLINE V median9(D, V p[9]) {
    for (const auto& pair : kMedian9) {
        const V lo = hn::Min(p[pair[0]], p[pair[1]]);
        p[pair[1]] = hn::Max(p[pair[0]], p[pair[1]]);
        p[pair[0]] = lo;
    }
    return p[4];
}

void Median9Row(float* dst, const float* const rows[9], size_t count) {
    const hn::ScalableTag<float> d;
    const hn::CappedTag<float, 1> one;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    for (; i + N <= count; i += N) {
        hn::Vec<decltype(d)> p[9];
        for (int k = 0; k < 9; ++k) p[k] = hn::LoadU(d, rows[k] + i);
        hn::StoreU(median9(d, p), d, dst + i);
    }
    for (; i < count; ++i) {
        hn::Vec<decltype(one)> p[9];
        for (int k = 0; k < 9; ++k) p[k] = hn::LoadU(one, rows[k] + i);
        hn::StoreU(median9(one, p), one, dst + i);
    }
}

void InterleaveRow(float* dst, const float* const* planes, size_t n, size_t count) {
    const hn::ScalableTag<float> d;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    if (n == 4)
        for (; i + N <= count; i += N)
            hn::StoreInterleaved4(hn::LoadU(d, planes[0] + i), hn::LoadU(d, planes[1] + i),
                                  hn::LoadU(d, planes[2] + i), hn::LoadU(d, planes[3] + i), d,
                                  dst + 4 * i);
    if (n == 3)
        for (; i + N <= count; i += N)
            hn::StoreInterleaved3(hn::LoadU(d, planes[0] + i), hn::LoadU(d, planes[1] + i),
                                  hn::LoadU(d, planes[2] + i), d, dst + 3 * i);
    for (; i < count; ++i)
        for (size_t k = 0; k < n; ++k) dst[i * n + k] = planes[k][i];
}

void WeightedSumRow(float* dst, const float* const* rows, const float* w, size_t taps,
                    size_t count) {
    const hn::ScalableTag<float> d;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    for (; i + N <= count; i += N) {
        auto acc = hn::Zero(d);
        for (size_t t = 0; t < taps; ++t)
            acc = hn::MulAdd(hn::Set(d, w[t]), hn::LoadU(d, rows[t] + i), acc);
        hn::StoreU(acc, d, dst + i);
    }
    // The remainder through the same multiply-adds.
    const hn::CappedTag<float, 1> one;
    for (; i < count; ++i) {
        auto acc = hn::Zero(one);
        for (size_t t = 0; t < taps; ++t)
            acc = hn::MulAdd(hn::Set(one, w[t]), hn::LoadU(one, rows[t] + i), acc);
        hn::StoreU(acc, one, dst + i);
    }
}

void ResampleRow(float* dst, const float* src, int64_t origin, const int64_t* first, const float* w,
                 size_t taps, size_t count, size_t n) {
    const hn::CappedTag<float, 4> d;
    if (n == 4 && hn::Lanes(d) == 4) {
        // A pixel a vector; two pixels a step, their sums independent chains.
        const auto pixel = [&](size_t i, size_t t) {
            return hn::LoadU(d, src + (first[i] - origin + int64_t(t)) * 4);
        };
        size_t i = 0;
        for (; i + 2 <= count; i += 2) {
            const float* w0 = w + i * taps;
            const float* w1 = w0 + taps;
            auto a0 = hn::Zero(d), a1 = hn::Zero(d);
            for (size_t t = 0; t < taps; ++t) {
                a0 = hn::MulAdd(hn::Set(d, w0[t]), pixel(i, t), a0);
                a1 = hn::MulAdd(hn::Set(d, w1[t]), pixel(i + 1, t), a1);
            }
            hn::StoreU(a0, d, dst + 4 * i);
            hn::StoreU(a1, d, dst + 4 * i + 4);
        }
        for (; i < count; ++i) {
            auto a = hn::Zero(d);
            for (size_t t = 0; t < taps; ++t)
                a = hn::MulAdd(hn::Set(d, w[i * taps + t]), pixel(i, t), a);
            hn::StoreU(a, d, dst + 4 * i);
        }
        return;
    }
    // Any other channel count one float at a time, through the same
    // multiply-adds in the same order: a channel's value does not depend on
    // which others the image holds.
    const hn::CappedTag<float, 1> one;
    for (size_t i = 0; i < count; ++i) {
        const float* p = src + (first[i] - origin) * int64_t(n);
        const float* wi = w + i * taps;
        for (size_t c = 0; c < n; ++c) {
            auto acc = hn::Zero(one);
            for (size_t t = 0; t < taps; ++t)
                acc = hn::MulAdd(hn::Set(one, wi[t]), hn::LoadU(one, p + t * n + c), acc);
            hn::StoreU(acc, one, dst + i * n + c);
        }
    }
}

void StreamRow(float* dst, const float* src, size_t count) {
    const hn::ScalableTag<float> d;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    // Up to the first vector-aligned float of dst, then whole vectors.
    for (; i < count && reinterpret_cast<uintptr_t>(dst + i) % (N * sizeof(float)) != 0; ++i)
        dst[i] = src[i];
    for (; i + N <= count; i += N) hn::Stream(hn::LoadU(d, src + i), d, dst + i);
    for (; i < count; ++i) dst[i] = src[i];
    hwy::FlushStream();
}

}  // namespace HWY_NAMESPACE
}  // namespace IMGLIB
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace IMGLIB {

HWY_EXPORT(MulAddRow);
HWY_EXPORT(ExtremeRow);
HWY_EXPORT(AddDifferenceRow);
HWY_EXPORT(Median9Row);
HWY_EXPORT(MulAddWidenRow);
HWY_EXPORT(FloatToHalfRow);
HWY_EXPORT(HalfToFloatRow);
HWY_EXPORT(InterleaveRow);
HWY_EXPORT(WeightedSumRow);
HWY_EXPORT(ResampleRow);
HWY_EXPORT(StreamRow);

void RowMulAdd(float* dst, const float* src, float w, size_t count) {
    HWY_DYNAMIC_DISPATCH(MulAddRow)(dst, src, w, count);
}

void RowExtreme(float* dst, const float* a, const float* b, size_t count, bool dilate) {
    HWY_DYNAMIC_DISPATCH(ExtremeRow)(dst, a, b, count, dilate);
}

void RowMedian9(float* dst, const float* const rows[9], size_t count) {
    HWY_DYNAMIC_DISPATCH(Median9Row)(dst, rows, count);
}

void RowAddDifference(double* acc, const double* hi, const double* lo, size_t count) {
    HWY_DYNAMIC_DISPATCH(AddDifferenceRow)(acc, hi, lo, count);
}

void RowMulAddWiden(double* acc, const float* src, float w, size_t count) {
    HWY_DYNAMIC_DISPATCH(MulAddWidenRow)(acc, src, w, count);
}

void RowFloatToHalf(uint16_t* dst, const float* src, size_t count) {
    HWY_DYNAMIC_DISPATCH(FloatToHalfRow)(dst, src, count);
}

void RowHalfToFloat(float* dst, const uint16_t* src, size_t count) {
    HWY_DYNAMIC_DISPATCH(HalfToFloatRow)(dst, src, count);
}

void RowInterleave(float* dst, const float* const* planes, size_t n, size_t count) {
    HWY_DYNAMIC_DISPATCH(InterleaveRow)(dst, planes, n, count);
}

void RowWeightedSum(float* dst, const float* const* rows, const float* w, size_t taps,
                    size_t count) {
    HWY_DYNAMIC_DISPATCH(WeightedSumRow)(dst, rows, w, taps, count);
}
void RowResample(float* dst, const float* src, int64_t origin, const int64_t* first, const float* w,
                 size_t taps, size_t count, size_t n) {
    HWY_DYNAMIC_DISPATCH(ResampleRow)(dst, src, origin, first, w, taps, count, n);
}

void RowStream(float* dst, const float* src, size_t count) {
    HWY_DYNAMIC_DISPATCH(StreamRow)(dst, src, count);
}
}  // namespace IMGLIB
#endif
