// The bilateral filter's rows for RGBA images, compiled once per
// instruction set: N pixels at a time, channels de-interleaved in registers.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "imglib/bilateral_kernels.cpp"
#include <hwy/foreach_target.h>  // NOLINT: must come before highway.h

#include <hwy/contrib/math/math-inl.h>
#include <hwy/highway.h>

#include "imglib/bilateralengine.h"

HWY_BEFORE_NAMESPACE();
namespace IMGLIB {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

template <class D>
HWY_INLINE void bilateralPixels(D d, float* out, const float* centre, ptrdiff_t rowFloats,
                                const BilateralTap* taps, size_t tapCount, float rangeScale) {
    using V = hn::Vec<D>;
    V cr, cg, cb, ca;
    hn::LoadInterleaved4(d, centre, cr, cg, cb, ca);
    V sr = hn::Zero(d), sg = hn::Zero(d), sb = hn::Zero(d), sa = hn::Zero(d), total = hn::Zero(d);
    const V scale = hn::Set(d, rangeScale);
    for (size_t t = 0; t < tapCount; ++t) {
        V pr, pg, pb, pa;
        hn::LoadInterleaved4(d, centre + taps[t].dy * rowFloats + taps[t].dx * 4, pr, pg, pb, pa);
        const V dr = hn::Sub(pr, cr), dg = hn::Sub(pg, cg), db = hn::Sub(pb, cb);
        const V r2 = hn::MulAdd(dr, dr, hn::MulAdd(dg, dg, hn::Mul(db, db)));
        const V w = hn::Mul(hn::Set(d, taps[t].weight), hn::Exp(d, hn::Mul(r2, scale)));
        // NaN neighbours (and weights that vanish) do not count.
        const auto counts = hn::Gt(w, hn::Zero(d));
        total = hn::Add(total, hn::IfThenElseZero(counts, w));
        sr = hn::Add(sr, hn::IfThenElseZero(counts, hn::Mul(w, pr)));
        sg = hn::Add(sg, hn::IfThenElseZero(counts, hn::Mul(w, pg)));
        sb = hn::Add(sb, hn::IfThenElseZero(counts, hn::Mul(w, pb)));
        sa = hn::Add(sa, hn::IfThenElseZero(counts, hn::Mul(w, pa)));
    }
    const auto any = hn::Gt(total, hn::Zero(d));
    const V inverse = hn::Div(hn::Set(d, 1.0f), hn::IfThenElse(any, total, hn::Set(d, 1.0f)));
    hn::StoreInterleaved4(hn::IfThenElse(any, hn::Mul(sr, inverse), cr),
                          hn::IfThenElse(any, hn::Mul(sg, inverse), cg),
                          hn::IfThenElse(any, hn::Mul(sb, inverse), cb),
                          hn::IfThenElse(any, hn::Mul(sa, inverse), ca), d, out);
}

void BilateralRowRGBA(float* out, const float* centre, size_t pixels, ptrdiff_t rowFloats,
                      const BilateralTap* taps, size_t tapCount, float rangeScale) {
    const hn::ScalableTag<float> d;
    const hn::CappedTag<float, 1> one;
    const size_t N = hn::Lanes(d);
    size_t i = 0;
    for (; i + N <= pixels; i += N)
        bilateralPixels(d, out + 4 * i, centre + 4 * i, rowFloats, taps, tapCount, rangeScale);
    for (; i < pixels; ++i)
        bilateralPixels(one, out + 4 * i, centre + 4 * i, rowFloats, taps, tapCount, rangeScale);
}

}  // namespace HWY_NAMESPACE
}  // namespace IMGLIB
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace IMGLIB {

HWY_EXPORT(BilateralRowRGBA);

void DispatchBilateralRowRGBA(float* out, const float* centre, size_t pixels, ptrdiff_t rowFloats,
                              const BilateralTap* taps, size_t tapCount, float rangeScale) {
    HWY_DYNAMIC_DISPATCH(BilateralRowRGBA)
    (out, centre, pixels, rowFloats, taps, tapCount, rangeScale);
}

}  // namespace IMGLIB
#endif
