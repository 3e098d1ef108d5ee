// The vector engine behind the pixel-wise and compositing operators,
// compiled once per instruction set and chosen at run time.
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "imglib/pointops_kernels.cpp"
#include <hwy/foreach_target.h>  // NOLINT: must come before highway.h

#include <hwy/contrib/math/math-inl.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "imglib/channels.h"
#include "imglib/compositeops.h"
#include "imglib/pixels.h"
#include "imglib/pointops.h"
#include "imglib/pointops_scalar.h"

HWY_BEFORE_NAMESPACE();
namespace IMGLIB {
namespace HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using D = hn::ScalableTag<float>;
using V = hn::Vec<D>;
constexpr size_t kMaxLanes = HWY_MAX_BYTES / sizeof(float);

// Where R, G, B and A sit in a pixel (-1 when absent), and its width.
struct Layout {
    explicit Layout(uint64_t channels) : stride(GetChannelCount(channels)) {
        for (int c = 0; c < 4; ++c) slot[c] = GetChannelIndex(channels, uint64_t(1) << c);
    }
    int slot[4];
    int stride;
};

// weights . RGB
HWY_INLINE V Luma(D d, const float* w, const V (&v)[4]) {
    return hn::MulAdd(v[0], hn::Set(d, w[0]),
                      hn::MulAdd(v[1], hn::Set(d, w[1]), hn::Mul(v[2], hn::Set(d, w[2]))));
}

// log2 x for normal x > 0, less `bias`: x = m 2^k with m in
// [sqrt(1/2), sqrt(2)), and ln m = 2 atanh(t), t = (m - 1) / (m + 1), whose
// series converges fast for |t| <= 0.172 (the terms left out are below
// 2^-31).
template <bool kBiased>
HWY_INLINE V Log2Normal(D d, V x, V bias) {
    const hn::RebindToSigned<D> di;
    const auto sqrtHalfBits = hn::Set(di, 0x3F3504F3);
    const auto bits = hn::BitCast(di, x);
    const auto k = hn::ShiftRight<23>(hn::Sub(bits, sqrtHalfBits));  // floor, by the sign
    const V m = hn::BitCast(d, hn::Sub(bits, hn::ShiftLeft<23>(k)));
    const V one = hn::Set(d, 1.0f);
    const V t = hn::Div(hn::Sub(m, one), hn::Add(m, one));
    const V t2 = hn::Mul(t, t);
    V series = hn::MulAdd(t2, hn::Set(d, 1.0f / 9), hn::Set(d, 1.0f / 7));
    series = hn::MulAdd(series, t2, hn::Set(d, 1.0f / 5));
    series = hn::MulAdd(series, t2, hn::Set(d, 1.0f / 3));
    series = hn::MulAdd(series, t2, one);
    const V lnM = hn::Mul(hn::Add(t, t), series);
    V exponent = hn::ConvertTo(d, k);
    if (kBiased) exponent = hn::Sub(exponent, bias);
    return hn::MulAdd(lnM, hn::Set(d, 1.4426950408889634f), exponent);
}

// log2 x for x > 0: subnormal x is scaled up first; infinity stays infinity.
HWY_INLINE V Log2(D d, V x) {
    const auto subnormal = hn::Lt(x, hn::Set(d, std::numeric_limits<float>::min()));
    const V normal = hn::IfThenElse(subnormal, hn::Mul(x, hn::Set(d, 16777216.0f)), x);  // 2^24
    const V log2 = Log2Normal<true>(d, normal, hn::IfThenElseZero(subnormal, hn::Set(d, 24.0f)));
    return hn::IfThenElse(hn::IsInf(x), x, log2);
}

// 2^y for y in [-125, 128): y = n + f with f in [-1/2, 1/2], 2^f by Cephes'
// minimax polynomial (within 2 ulp), 2^n put straight into the exponent.
HWY_INLINE V Exp2InRange(D d, V y) {
    const hn::RebindToSigned<D> di;
    const V n = hn::Round(y);
    const V f = hn::Sub(y, n);
    V p = hn::MulAdd(f, hn::Set(d, 1.535336188319500e-4f), hn::Set(d, 1.339887440266574e-3f));
    p = hn::MulAdd(p, f, hn::Set(d, 9.618437357674640e-3f));
    p = hn::MulAdd(p, f, hn::Set(d, 5.550332471162809e-2f));
    p = hn::MulAdd(p, f, hn::Set(d, 2.402264791363012e-1f));
    p = hn::MulAdd(p, f, hn::Set(d, 6.931472028550421e-1f));
    p = hn::MulAdd(p, f, hn::Set(d, 1.0f));
    return hn::BitCast(d, hn::Add(hn::BitCast(di, p), hn::ShiftLeft<23>(hn::ConvertTo(di, n))));
}

// 2^y: results beyond the float range are infinity; below 2^-125, zero.
HWY_INLINE V Exp2(D d, V y) {
    const V big = hn::Set(d, 128.0f), tiny = hn::Set(d, -125.0f);
    const V scaled = Exp2InRange(d, hn::Min(hn::Max(y, tiny), big));
    return hn::IfThenElse(hn::Ge(y, big), hn::Set(d, std::numeric_limits<float>::infinity()),
                          hn::IfThenZeroElse(hn::Lt(y, tiny), scaled));
}

// x^e for x > 0: two cheap transcendentals instead of the general Exp and
// Log, which a chain of colour corrections spends most of its time in. Most
// groups of pixels need none of the care for subnormal or infinite x, or for
// results beyond the float range, and skip it; the bits are the same.
HWY_INLINE V Pow(D d, V x, V e) {
    const auto special =
        hn::Or(hn::Lt(x, hn::Set(d, std::numeric_limits<float>::min())), hn::IsInf(x));
    if (!hn::AllFalse(d, special)) return Exp2(d, hn::Mul(e, Log2(d, x)));
    const V y = hn::Mul(e, Log2Normal<false>(d, x, x));
    const auto inRange = hn::And(hn::Ge(y, hn::Set(d, -125.0f)), hn::Lt(y, hn::Set(d, 128.0f)));
    return hn::AllTrue(d, inRange) ? Exp2InRange(d, y) : Exp2(d, y);
}

// Lanes as four planes of floats, for the operators done a lane at a time.
struct Planes {
    HWY_ALIGN float c[4][kMaxLanes];
    void store(D d, const V (&v)[4]) {
        for (int k = 0; k < 4; ++k) hn::Store(v[k], d, c[k]);
    }
    void load(D d, V (&v)[4]) const {
        for (int k = 0; k < 4; ++k) v[k] = hn::Load(d, c[k]);
    }
};

void applyLanes(D d, const PointOp& op, V (&v)[4]) {
    Planes p;
    p.store(d, v);
    const size_t n = hn::Lanes(d);
    for (size_t l = 0; l < n; ++l) {
        float &r = p.c[0][l], &g = p.c[1][l], &b = p.c[2][l], &a = p.c[3][l];
        switch (op.kind) {
            case POINTOP_HSV_TO_ALPHA: {
                float hsv[3];
                scalar::rgbToHsv(r, g, b, hsv[0], hsv[1], hsv[2]);
                a = hsv[std::clamp<int64_t>(op.i[0], 0, 2)];
                break;
            }
            case POINTOP_HSV_CONVERT:
                if (op.i[0])
                    scalar::rgbToHsv(r, g, b, r, g, b);
                else
                    scalar::hsvToRgb(r, g, b, r, g, b);
                break;
            case POINTOP_LAB_CONVERT:
                if (op.i[0])
                    scalar::rgbToLab(r, g, b, r, g, b);
                else
                    scalar::labToRgb(r, g, b, r, g, b);
                break;
            case POINTOP_LUMA_CURVE: {
                const float luma = op.p[0] * r + op.p[1] * g + op.p[2] * b;
                const float mapped = scalar::evalCurve(op.curve[0], op.curvePoints[0], luma);
                if (luma > 1e-8f || luma < -1e-8f) {
                    const float k = mapped / luma;
                    r *= k, g *= k, b *= k;
                } else {
                    r += mapped - luma, g += mapped - luma, b += mapped - luma;
                }
                break;
            }
            case POINTOP_RGBA_CURVES:
                for (int k = 0; k < 4; ++k)
                    p.c[k][l] = scalar::evalCurve(op.curve[k], op.curvePoints[k], p.c[k][l]);
                break;
            default:
                break;
        }
    }
    p.load(d, v);
}

// One operator on a group of pixels, as four vectors R, G, B, A.
HWY_INLINE void applyOp(D d, const PointOp& op, V (&v)[4]) {
    const float* p = op.p;
    switch (op.kind) {
        case POINTOP_COPY:
            break;
        case POINTOP_CLAMP:
            for (int c = 0; c < 4; ++c) {
                if (op.i[0]) v[c] = hn::Max(v[c], hn::Set(d, p[c]));
                if (op.i[1]) v[c] = hn::Min(v[c], hn::Set(d, p[4 + c]));
            }
            break;
        case POINTOP_THRESHOLD:
            for (int c = 0; c < 4; ++c) {
                const auto above = hn::Ge(v[c], hn::Set(d, p[c]));
                const V hi = op.i[1] ? hn::Set(d, p[8 + c]) : v[c];
                const V lo = op.i[0] ? hn::Set(d, p[4 + c]) : v[c];
                v[c] = hn::IfThenElse(above, hi, lo);
            }
            break;
        case POINTOP_CLEANUP_CLAMP:
            for (int c = 0; c < 3; ++c) {
                v[c] = hn::Max(v[c], hn::Zero(d));
                if (op.i[0]) v[c] = hn::Min(v[c], hn::Set(d, 1.0f));
            }
            v[3] = hn::Min(hn::Max(v[3], hn::Zero(d)), hn::Set(d, 1.0f));
            break;
        case POINTOP_CONTRAST:
            for (int c = 0; c < 4; ++c) {
                const V pivot = hn::Set(d, p[4 + c]);
                v[c] = hn::MulAdd(hn::Sub(v[c], pivot), hn::Set(d, p[c]), pivot);
            }
            break;
        case POINTOP_EXPONENTIAL:
            for (int c = 0; c < 4; ++c) {
                if (p[c] == 1.0f) continue;  // exact: exp(log x) is not
                const float pv = p[4 + c] > 0.0f ? p[4 + c] : 1.0f;
                if (pv == 1.0f) {  // the same bits without the scaling
                    v[c] = hn::IfThenElse(hn::Gt(v[c], hn::Zero(d)), Pow(d, v[c], hn::Set(d, p[c])),
                                          v[c]);
                    continue;
                }
                const V x = hn::Mul(v[c], hn::Set(d, 1.0f / pv));
                const V powered = hn::Mul(hn::Set(d, pv), Pow(d, x, hn::Set(d, p[c])));
                v[c] = hn::IfThenElse(hn::Gt(x, hn::Zero(d)), powered, v[c]);
            }
            break;
        case POINTOP_COMPRESS_RANGE:
        case POINTOP_EXPAND_RANGE: {
            // Log2 compression about mid grey that maps `maximum` to `scale`,
            // continued below 0 by its slope at 0, and its inverse.
            const float mid = p[0] > 0.0f ? p[0] : 0.18f;
            // In double: a maximum far below mid grey must not round to log 0.
            const float k =
                float(double(p[2]) / std::log2(1.0 + double(std::max(p[1], 1e-6f)) / mid));
            const float ln2 = 0.69314718f;
            for (int c = 0; c < 3; ++c) {
                const V x = v[c];
                if (op.kind == POINTOP_COMPRESS_RANGE) {
                    const V y = hn::Mul(
                        hn::Set(d, k / ln2),
                        hn::Log(d, hn::MulAdd(x, hn::Set(d, 1.0f / mid), hn::Set(d, 1.0f))));
                    v[c] = hn::IfThenElse(hn::Gt(x, hn::Zero(d)), y,
                                          hn::Mul(x, hn::Set(d, k / (mid * ln2))));
                } else {
                    const V e = hn::Exp(d, hn::Mul(x, hn::Set(d, ln2 / k)));
                    const V y = hn::Mul(hn::Set(d, mid), hn::Sub(e, hn::Set(d, 1.0f)));
                    v[c] = hn::IfThenElse(hn::Gt(x, hn::Zero(d)), y,
                                          hn::Mul(x, hn::Set(d, mid * ln2 / k)));
                }
            }
            break;
        }
        case POINTOP_NCONTRAST_BOOST:
            for (int c = 0; c < (op.i[0] ? 4 : 3); ++c) {
                const V x = v[c];
                // s = 6x^5 - 15x^4 + 10x^3 on [0, 1]; x itself outside.
                const V s =
                    hn::Mul(hn::Mul(hn::Mul(x, x), x),
                            hn::MulAdd(x, hn::MulAdd(x, hn::Set(d, 6.0f), hn::Set(d, -15.0f)),
                                       hn::Set(d, 10.0f)));
                const auto inside = hn::And(hn::Ge(x, hn::Zero(d)), hn::Le(x, hn::Set(d, 1.0f)));
                const V boosted = hn::MulAdd(hn::Sub(s, x), hn::Set(d, p[0]), x);
                v[c] = hn::IfThenElse(inside, boosted, x);
            }
            break;
        case POINTOP_FRINGE: {
            // 4a(1 - a): 1 at half coverage, 0 where solid or empty.
            const V a = v[3];
            V f = hn::Mul(hn::Mul(hn::Set(d, 4.0f), a), hn::Sub(hn::Set(d, 1.0f), a));
            f = hn::Min(hn::Max(f, hn::Zero(d)), hn::Set(d, 1.0f));
            for (int c = 0; c < 4; ++c) v[c] = hn::Mul(v[c], f);
            break;
        }
        case POINTOP_MAX_RGB_TO_ALPHA:
            v[3] = hn::Max(hn::Max(v[0], v[1]), v[2]);
            break;
        case POINTOP_MIN_RGB_TO_ALPHA:
            v[3] = hn::Min(hn::Min(v[0], v[1]), v[2]);
            break;
        case POINTOP_SCREEN_RGB_TO_ALPHA: {
            const int key = op.i[0] == 1 ? 0 : op.i[0] == 2 ? 1 : op.i[0] == 4 ? 2 : -1;
            if (key < 0) {
                v[3] = hn::Zero(d);
                break;
            }
            const V others = hn::Max(v[(key + 1) % 3], v[(key + 2) % 3]);
            const V a = hn::Add(hn::Sub(hn::Set(d, 1.0f), v[key]), others);
            v[3] = hn::Min(hn::Max(a, hn::Zero(d)), hn::Set(d, 1.0f));
            break;
        }
        case POINTOP_MULT_INVERSE: {
            const auto covered = hn::Ne(v[3], hn::Zero(d));
            for (int c = 0; c < 3; ++c) v[c] = hn::IfThenElse(covered, hn::Div(v[c], v[3]), v[c]);
            break;
        }
        case POINTOP_POSTERIZE: {
            const float levels = std::max(2.0f, p[0]), lo = p[1], range = p[2] - p[1];
            if (range == 0.0f) break;
            for (int c = 0; c < (op.i[0] ? 4 : 3); ++c) {
                V t = hn::Mul(hn::Sub(v[c], hn::Set(d, lo)), hn::Set(d, 1.0f / range));
                if (op.i[1]) t = hn::Min(hn::Max(t, hn::Zero(d)), hn::Set(d, 1.0f));
                const V q = hn::Mul(hn::Round(hn::Mul(t, hn::Set(d, levels - 1.0f))),
                                    hn::Set(d, 1.0f / (levels - 1.0f)));
                v[c] = hn::MulAdd(q, hn::Set(d, range), hn::Set(d, lo));
            }
            break;
        }
        case POINTOP_LOG_CONVERT: {
            // Cineon-style: code = white + log10(x (1 - b) + b) / density,
            // b = 10^((black - white) density).
            const float ln10 = 2.30258509f;
            for (int c = 0; c < (op.i[1] ? 4 : 3); ++c) {
                const float density = p[8 + c] != 0.0f ? p[8 + c] : 1.0f;
                const float b = std::pow(10.0f, (p[c] - p[4 + c]) * density);
                if (op.i[0]) {
                    const V lin = hn::MulAdd(v[c], hn::Set(d, 1.0f - b), hn::Set(d, b));
                    const V code =
                        hn::MulAdd(hn::Log(d, hn::Max(lin, hn::Set(d, 1e-30f))),
                                   hn::Set(d, 1.0f / (ln10 * density)), hn::Set(d, p[4 + c]));
                    v[c] = code;
                } else {
                    const V e = hn::Exp(d, hn::Mul(hn::Sub(v[c], hn::Set(d, p[4 + c])),
                                                   hn::Set(d, density * ln10)));
                    v[c] = hn::Mul(hn::Sub(e, hn::Set(d, b)),
                                   hn::Set(d, 1.0f / (b != 1.0f ? 1.0f - b : 1.0f)));
                }
            }
            break;
        }
        case POINTOP_BLOOM_RGB:
        case POINTOP_BLOOM_LUMINANCE: {
            const V t = hn::Set(d, p[0]), gain = hn::Set(d, p[1]);
            auto curve = [&](V x) {
                const V above = hn::MulAdd(hn::Sub(x, t), gain, t);
                return hn::IfThenElse(hn::Gt(x, t), above, op.i[0] ? hn::Zero(d) : x);
            };
            if (op.kind == POINTOP_BLOOM_RGB) {
                for (int c = 0; c < 3; ++c) v[c] = curve(v[c]);
                break;
            }
            const V luma = hn::MulAdd(
                v[0], hn::Set(d, 0.2126f),
                hn::MulAdd(v[1], hn::Set(d, 0.7152f), hn::Mul(v[2], hn::Set(d, 0.0722f))));
            const auto positive = hn::Gt(luma, hn::Zero(d));
            const V scale = hn::IfThenElse(positive, hn::Div(curve(luma), luma),
                                           op.i[0] ? hn::Zero(d) : hn::Set(d, 1.0f));
            for (int c = 0; c < 3; ++c) v[c] = hn::Mul(v[c], scale);
            break;
        }
        case POINTOP_COLOR_MATRIX: {
            if (op.i[0]) {  // no channel feeds another
                for (int c = 0; c < 4; ++c)
                    v[c] = hn::MulAdd(v[c], hn::Set(d, p[6 * c]), hn::Set(d, p[5 * c + 4]));
                break;
            }
            V o[4];
            for (int r = 0; r < 4; ++r) {
                const float* m = p + 5 * r;
                o[r] = hn::MulAdd(
                    v[0], hn::Set(d, m[0]),
                    hn::MulAdd(v[1], hn::Set(d, m[1]),
                               hn::MulAdd(v[2], hn::Set(d, m[2]),
                                          hn::MulAdd(v[3], hn::Set(d, m[3]), hn::Set(d, m[4])))));
            }
            for (int c = 0; c < 4; ++c) v[c] = o[c];
            break;
        }
        case POINTOP_PREMULTIPLY:
            for (int c = 0; c < 3; ++c) v[c] = hn::Mul(v[c], v[3]);
            break;
        case POINTOP_LUMINANCE:
            v[0] = v[1] = v[2] = Luma(d, p, v);
            break;
        case POINTOP_LUMA_KEY: {
            const V y = Luma(d, p, v), one = hn::Set(d, 1.0f);
            V m = p[4] > 0.0f ? hn::Mul(hn::Sub(y, hn::Set(d, p[3])), hn::Set(d, p[4]))
                              : hn::IfThenElseZero(hn::Ge(y, hn::Set(d, p[3])), one);
            m = hn::Min(hn::Max(m, hn::Zero(d)), one);
            v[3] = op.i[0] ? hn::Sub(one, m) : m;
            break;
        }
        case POINTOP_CHROMA_KEY: {
            static constexpr float k709[3] = {0.2126f, 0.7152f, 0.0722f};
            const V y = Luma(d, k709, v), one = hn::Set(d, 1.0f);
            const V du = hn::Sub(hn::Sub(v[2], y), hn::Set(d, p[0]));
            const V dv = hn::Sub(hn::Sub(v[0], y), hn::Set(d, p[1]));
            const V distance =
                hn::Mul(hn::Sqrt(hn::MulAdd(du, du, hn::Mul(dv, dv))), hn::Set(d, p[2]));
            const V beyond = hn::Sub(distance, hn::Set(d, p[3]));
            V m = p[4] > 0.0f ? hn::Mul(beyond, hn::Set(d, p[4]))
                              : hn::IfThenElseZero(hn::Gt(beyond, hn::Zero(d)), one);
            m = hn::Min(hn::Max(m, hn::Zero(d)), one);
            const int k = static_cast<int>(op.i[0]);
            const V limit = hn::Max(v[(k + 1) % 3], v[(k + 2) % 3]);
            const V excess = hn::Max(hn::Sub(v[k], limit), hn::Zero(d));
            v[k] = hn::NegMulAdd(excess, hn::Set(d, p[5]), v[k]);
            v[3] = hn::Mul(v[3], m);
            break;
        }
        default:
            applyLanes(d, op, v);
            break;
    }
}

// Reads up to Lanes pixels of a row into vectors; absent channels are 0,
// and so are pixels beyond `count`.
HWY_INLINE void gather(D d, const float* row, const Layout& layout, size_t count, V (&v)[4]) {
    Planes p;
    std::memset(&p, 0, sizeof p);
    for (size_t i = 0; i < count; ++i)
        for (int c = 0; c < 4; ++c)
            if (layout.slot[c] >= 0) p.c[c][i] = row[i * layout.stride + layout.slot[c]];
    p.load(d, v);
}

HWY_INLINE void scatter(D d, float* row, const Layout& layout, size_t count, const V (&v)[4]) {
    Planes p;
    p.store(d, v);
    for (size_t i = 0; i < count; ++i)
        for (int c = 0; c < 4; ++c)
            if (layout.slot[c] >= 0) row[i * layout.stride + layout.slot[c]] = p.c[c][i];
}

// The first `count` (fewer than Lanes) RGBA pixels of a row, through a
// vector's worth of room rather than lane by lane; lanes past them are 0.
HWY_INLINE void loadTail4(D d, const float* row, size_t count, V (&v)[4]) {
    HWY_ALIGN float room[4 * hn::MaxLanes(d)] = {};
    std::memcpy(room, row, count * 4 * sizeof(float));
    hn::LoadInterleaved4(d, room, v[0], v[1], v[2], v[3]);
}

HWY_INLINE void storeTail4(D d, const V (&v)[4], size_t count, float* row) {
    HWY_ALIGN float room[4 * hn::MaxLanes(d)];
    hn::StoreInterleaved4(v[0], v[1], v[2], v[3], d, room);
    std::memcpy(row, room, count * 4 * sizeof(float));
}

// Channels beyond RGBA: copied from in where it has them, else 0.
void copyExtraChannels(const Image* out, const Image* in) {
    const uint64_t extra = out->channels & ~CHANNELS_RGBA;
    if (!extra) return;
    const int outStride = GetChannelCount(out->channels), inStride = GetChannelCount(in->channels);
    for (int bit = 4; bit < MAX_CHANNELS; ++bit) {
        const uint64_t ch = uint64_t(1) << bit;
        if (!(extra & ch)) continue;
        const int o = GetChannelIndex(out->channels, ch), s = GetChannelIndex(in->channels, ch);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* dst = GetPixelAddress(out, out->x1, y, 4 * outStride) + o;
            const float* src = s >= 0 ? GetPixelAddress(in, out->x1, y, 4 * inStride) + s : nullptr;
            for (int64_t x = 0; x < out->width(); ++x)
                dst[x * outStride] = src ? src[x * inStride] : 0.0f;
        }
    }
}

void RunPointOps(const Image* out, const Image* in, const PointOp* ops, size_t count) {
    const D d;
    const size_t N = hn::Lanes(d);
    const Layout outLayout(out->channels), inLayout(in->channels);
    const bool rgba = out->channels == CHANNELS_RGBA && in->channels == CHANNELS_RGBA;
    const bool rgb = out->channels == CHANNELS_RGB && in->channels == CHANNELS_RGB;
    const size_t width = static_cast<size_t>(out->width());
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* dst = GetPixelAddress(out, out->x1, y, 4 * outLayout.stride);
        const float* src = GetPixelAddress(in, out->x1, y, 4 * inLayout.stride);
        size_t x = 0;
        V v[4];
        if (rgba) {
            // Several groups at a time: each operator's long chains (a
            // power is some thirty dependent steps) run side by side.
            constexpr size_t G = 2;
            V g[G][4];
            for (; x + G * N <= width; x += G * N) {
                for (size_t i = 0; i < G; ++i)
                    hn::LoadInterleaved4(d, src + 4 * (x + i * N), g[i][0], g[i][1], g[i][2],
                                         g[i][3]);
                for (size_t k = 0; k < count; ++k)
                    for (size_t i = 0; i < G; ++i) applyOp(d, ops[k], g[i]);
                for (size_t i = 0; i < G; ++i)
                    hn::StoreInterleaved4(g[i][0], g[i][1], g[i][2], g[i][3], d,
                                          dst + 4 * (x + i * N));
            }
            for (; x + N <= width; x += N) {
                hn::LoadInterleaved4(d, src + 4 * x, v[0], v[1], v[2], v[3]);
                for (size_t k = 0; k < count; ++k) applyOp(d, ops[k], v);
                hn::StoreInterleaved4(v[0], v[1], v[2], v[3], d, dst + 4 * x);
            }
        } else if (rgb) {
            for (; x + N <= width; x += N) {
                hn::LoadInterleaved3(d, src + 3 * x, v[0], v[1], v[2]);
                v[3] = hn::Zero(d);
                for (size_t k = 0; k < count; ++k) applyOp(d, ops[k], v);
                hn::StoreInterleaved3(v[0], v[1], v[2], d, dst + 3 * x);
            }
        }
        for (; x < width; x += N) {
            const size_t n = std::min(N, width - x);
            if (rgba) {
                loadTail4(d, src + 4 * x, n, v);
            } else {
                gather(d, src + x * inLayout.stride, inLayout, n, v);
            }
            for (size_t k = 0; k < count; ++k) applyOp(d, ops[k], v);
            if (rgba) {
                storeTail4(d, v, n, dst + 4 * x);
            } else {
                scatter(d, dst + x * outLayout.stride, outLayout, n, v);
            }
        }
    }
    copyExtraChannels(out, in);
}

// ---- Two-input operators ----

// Pixels [x, x + n) of row y of an input: its own where it has them, the
// background colour elsewhere (and everywhere when there is no image).
HWY_INLINE void loadInput(D d, const Image* image, const float bg[4], int64_t x, int64_t y,
                          size_t n, V (&v)[4]) {
    const size_t N = hn::Lanes(d);
    if (image && image->channels == CHANNELS_RGBA && y >= image->y1 && y < image->y2 &&
        x >= image->x1 && x + static_cast<int64_t>(n) <= image->x2) {
        const float* pixels = GetPixelAddress(image, x, y, 16);
        if (n == N) {
            hn::LoadInterleaved4(d, pixels, v[0], v[1], v[2], v[3]);
            return;
        }
        loadTail4(d, pixels, n, v);
        return;
    }
    // No pixel of the image here: its background colour, as the lanes
    // past n are never stored.
    if (!image || y < image->y1 || y >= image->y2 || x >= image->x2 ||
        x + static_cast<int64_t>(n) <= image->x1) {
        for (int c = 0; c < 4; ++c) v[c] = hn::Set(d, bg[c]);
        return;
    }
    Planes p;
    const Layout layout(image ? image->channels : CHANNELS_RGBA);
    for (size_t i = 0; i < N; ++i) {
        const int64_t px = x + static_cast<int64_t>(i);
        const bool inside =
            image && i < n && y >= image->y1 && y < image->y2 && px >= image->x1 && px < image->x2;
        const float* pixel = inside ? GetPixelAddress(image, px, y, 4 * layout.stride) : nullptr;
        for (int c = 0; c < 4; ++c)
            p.c[c][i] = !inside ? bg[c] : layout.slot[c] >= 0 ? pixel[layout.slot[c]] : 0.0f;
    }
    p.load(d, v);
}

HWY_INLINE V clamp01(D d, V x, bool clamp) {
    return clamp ? hn::Min(hn::Max(x, hn::Zero(d)), hn::Set(d, 1.0f)) : x;
}

// x0 is input 0, x1 input 1 (for "A over B" x1 is A, the foreground).
HWY_INLINE void applyBinary(D d, const BinaryOp& op, const V (&x0)[4], const V (&x1)[4],
                            V (&o)[4]) {
    const V one = hn::Set(d, 1.0f), zero = hn::Zero(d);
    switch (op.kind) {
        case BINARYOP_ADD:
            for (int c = 0; c < 4; ++c) o[c] = hn::Add(x0[c], x1[c]);
            break;
        case BINARYOP_AVERAGE:
            for (int c = 0; c < 4; ++c) o[c] = hn::Mul(hn::Add(x0[c], x1[c]), hn::Set(d, 0.5f));
            break;
        case BINARYOP_DIFFERENCE:
            for (int c = 0; c < 4; ++c) o[c] = hn::Abs(hn::Sub(x0[c], x1[c]));
            break;
        case BINARYOP_SUBTRACT:
            for (int c = 0; c < 4; ++c) o[c] = hn::Sub(x0[c], x1[c]);
            break;
        case BINARYOP_DIVIDE:
            for (int c = 0; c < 4; ++c)
                o[c] = hn::IfThenElse(hn::Ne(x1[c], zero), hn::Div(x0[c], x1[c]), zero);
            break;
        case BINARYOP_EXCLUSION:
            for (int c = 0; c < 4; ++c)
                o[c] = hn::Sub(hn::Add(x0[c], x1[c]),
                               hn::Mul(hn::Set(d, 2.0f), hn::Mul(x0[c], x1[c])));
            break;
        case BINARYOP_GEOMETRIC:
            for (int c = 0; c < 4; ++c) {
                const V sum = hn::Add(x0[c], x1[c]);
                o[c] = hn::IfThenElse(
                    hn::Ne(sum, zero),
                    hn::Div(hn::Mul(hn::Set(d, 2.0f), hn::Mul(x0[c], x1[c])), sum), zero);
            }
            break;
        case BINARYOP_HYPOTENUSE:
            for (int c = 0; c < 4; ++c)
                o[c] = hn::Sqrt(hn::MulAdd(x0[c], x0[c], hn::Mul(x1[c], x1[c])));
            break;
        case BINARYOP_MULTIPLY:
            for (int c = 0; c < 4; ++c) o[c] = hn::Mul(x0[c], x1[c]);
            break;
        case BINARYOP_MAX:
        case BINARYOP_MIN: {
            const bool isMax = op.kind == BINARYOP_MAX;
            if (!op.flag) {
                for (int c = 0; c < 4; ++c)
                    o[c] = isMax ? hn::Max(x0[c], x1[c]) : hn::Min(x0[c], x1[c]);
                break;
            }
            // Whole pixels, chosen by luminance.
            auto luma = [&](const V(&x)[4]) {
                return hn::MulAdd(
                    x[0], hn::Set(d, 0.2126f),
                    hn::MulAdd(x[1], hn::Set(d, 0.7152f), hn::Mul(x[2], hn::Set(d, 0.0722f))));
            };
            const auto pickSecond = isMax ? hn::Gt(luma(x1), luma(x0)) : hn::Lt(luma(x1), luma(x0));
            for (int c = 0; c < 4; ++c) o[c] = hn::IfThenElse(pickSecond, x1[c], x0[c]);
            break;
        }
        case BINARYOP_IN:  // x0 in x1
            for (int c = 0; c < 4; ++c) o[c] = hn::Mul(x0[c], clamp01(d, x1[3], op.flag));
            break;
        case BINARYOP_OUT:  // x0 out x1
            for (int c = 0; c < 4; ++c)
                o[c] = hn::Mul(x0[c], hn::Sub(one, clamp01(d, x1[3], op.flag)));
            break;
        case BINARYOP_OVER: {  // x1 over x0
            const V keep = hn::Sub(one, clamp01(d, x1[3], op.flag));
            for (int c = 0; c < 4; ++c) o[c] = hn::MulAdd(x0[c], keep, x1[c]);
            break;
        }
        case BINARYOP_UNDER: {  // x1 under x0 = x0 over x1
            const V keep = hn::Sub(one, clamp01(d, x0[3], op.flag));
            for (int c = 0; c < 4; ++c) o[c] = hn::MulAdd(x1[c], keep, x0[c]);
            break;
        }
        case BINARYOP_ATOP: {  // x1 atop x0: x1 where x0 is, over x0
            const V bA = clamp01(d, x0[3], op.flag);
            const V keep = hn::Sub(one, clamp01(d, x1[3], op.flag));
            for (int c = 0; c < 3; ++c) o[c] = hn::MulAdd(x0[c], keep, hn::Mul(x1[c], bA));
            o[3] = x0[3];
            break;
        }
        case BINARYOP_SCREEN:
            for (int c = 0; c < 4; ++c) {
                const V s = hn::Sub(hn::Add(x0[c], x1[c]), hn::Mul(x0[c], x1[c]));
                o[c] = op.flag ? hn::IfThenElse(hn::Or(hn::Gt(x0[c], one), hn::Gt(x1[c], one)),
                                                hn::Max(x0[c], x1[c]), s)
                               : s;
            }
            break;
        case BINARYOP_MIX: {
            const V m = hn::Set(d, op.mix);
            for (int c = 0; c < 4; ++c) o[c] = hn::MulAdd(hn::Sub(x1[c], x0[c]), m, x0[c]);
            break;
        }
        case BINARYOP_MATTE_MAX:
        case BINARYOP_MATTE_MIN:
        case BINARYOP_MATTE_MULTIPLY:
        case BINARYOP_MATTE_PLUS:
        case BINARYOP_MATTE_MINUS: {
            const V b = x0[3], a = x1[3];
            V m = op.kind == BINARYOP_MATTE_MAX        ? hn::Max(a, b)
                  : op.kind == BINARYOP_MATTE_MIN      ? hn::Min(a, b)
                  : op.kind == BINARYOP_MATTE_MULTIPLY ? hn::Mul(a, b)
                  : op.kind == BINARYOP_MATTE_PLUS     ? hn::Add(a, b)
                                                       : hn::Sub(a, b);
            for (int c = 0; c < 3; ++c) o[c] = x0[c];
            o[3] = clamp01(d, m, op.flag);
            break;
        }
        case BINARYOP_DIFFERENCE_KEY: {
            V diff = hn::Abs(hn::Sub(x1[0], x0[0]));
            for (int c = 1; c < 3; ++c) diff = hn::Max(diff, hn::Abs(hn::Sub(x1[c], x0[c])));
            const V m = op.high > op.low
                            ? hn::Mul(hn::Sub(diff, hn::Set(d, op.low)),
                                      hn::Set(d, 1.0f / (op.high - op.low)))
                            : hn::IfThenElseZero(hn::Ge(diff, hn::Set(d, op.low)), one);
            for (int c = 0; c < 3; ++c) o[c] = x1[c];
            o[3] = clamp01(d, m, true);
            break;
        }
    }
}

void RunBinaryOp(const Image* out, const Image* in0, const Image* in1, const BinaryOp* op,
                 const float* bg0, const float* bg1) {
    const D d;
    const size_t N = hn::Lanes(d);
    const Layout layout(out->channels);
    const bool rgba = out->channels == CHANNELS_RGBA;
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* dst = GetPixelAddress(out, out->x1, y, 4 * layout.stride);
        for (int64_t x = out->x1; x < out->x2; x += static_cast<int64_t>(N)) {
            const size_t n = std::min<size_t>(N, static_cast<size_t>(out->x2 - x));
            V a[4], b[4], o[4];
            loadInput(d, in0, bg0, x, y, n, a);
            loadInput(d, in1, bg1, x, y, n, b);
            applyBinary(d, *op, a, b, o);
            float* px = dst + (x - out->x1) * layout.stride;
            if (rgba && n == N) {
                hn::StoreInterleaved4(o[0], o[1], o[2], o[3], d, px);
            } else if (rgba) {
                storeTail4(d, o, n, px);
            } else {
                scatter(d, px, layout, n, o);
            }
        }
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace IMGLIB
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace IMGLIB {

HWY_EXPORT(RunPointOps);
HWY_EXPORT(RunBinaryOp);

void DispatchPointOps(const Image* out, const Image* in, const PointOp* ops, size_t count) {
    HWY_DYNAMIC_DISPATCH(RunPointOps)(out, in, ops, count);
}

void DispatchBinaryOp(const Image* out, const Image* in0, const Image* in1, const BinaryOp& op,
                      const float bg0[4], const float bg1[4]) {
    HWY_DYNAMIC_DISPATCH(RunBinaryOp)(out, in0, in1, &op, bg0, bg1);
}

}  // namespace IMGLIB
#endif
