// The pixel-wise operators against their closed forms, on every pixel
// layout the engine has a path for.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "imglib/pointops.h"

using namespace IMGLIB;
using Color = Imath::Color4<float>;

namespace {

// An owned image whose pixels cycle through `values` channel by channel.
struct TestImage {
    TestImage(uint64_t channels, int64_t width, const std::vector<float>& values) {
        image.channels = channels;
        image.x2 = width;
        image.y2 = 2;
        image.rowBytes = (width * GetPixelBytes(channels) + 15) & ~int64_t(15);
        storage.resize(static_cast<size_t>(image.rowBytes / 4 * 2));
        image.pixelPtr = storage.data();
        size_t k = 0;
        const int n = GetChannelCount(channels);
        for (int64_t y = 0; y < 2; ++y)
            for (int64_t x = 0; x < width; ++x)
                for (int c = 0; c < n; ++c)
                    GetPixelAddress(&image, x, y, 4 * n)[c] = values[k++ % values.size()];
    }
    Color at(int64_t x, int64_t y) const {
        float v[4] = {0, 0, 0, 0};
        GetPixel(&image, x, y, v);
        return Color(v[0], v[1], v[2], v[3]);
    }
    Image image;
    std::vector<float> storage;
};

// Values a grade meets: 0, 1, negatives, above 1, alpha 0 and 1.
const std::vector<float> kValues = {0.0f, 1.0f, 0.25f, 0.5f, -0.5f, 2.5f, 0.75f, 0.0f,  0.1f,
                                    1.0f, 3.0f, 0.9f,  0.6f, 0.3f,  0.2f, 1.0f,  0.05f, 0.4f};

bool near(float a, float b, float tol) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    if (std::isinf(a) || std::isinf(b)) return a == b;
    return std::fabs(a - b) <= tol * std::max(1.0f, std::fabs(b));
}

// Runs op over RGBA (vector path), RGB (three-channel path) and R+A+Z
// (generic path) images, and its colour form, against reference().
void expectMatches(const PointOp& op, const std::function<Color(Color)>& reference,
                   float tol = 1e-5f) {
    for (uint64_t channels : {CHANNELS_RGBA, CHANNELS_RGB, CHANNEL_R | CHANNEL_A | CHANNEL_Z}) {
        TestImage in(channels, 37, kValues), out(channels, 37, {-9.0f});
        ASSERT_EQ(ApplyPointOps(&out.image, &in.image, &op, 1), ERROR_NONE);
        for (int64_t y = 0; y < 2; ++y)
            for (int64_t x = 0; x < 37; ++x) {
                const Color expected = reference(in.at(x, y));
                const Color got = out.at(x, y);
                for (int c = 0; c < 4; ++c) {
                    if (GetChannelIndex(channels, uint64_t(1) << c) < 0) continue;
                    ASSERT_TRUE(near(got[c], expected[c], tol))
                        << "kind " << op.kind << " channels " << channels << " pixel " << x
                        << " channel " << c << ": " << got[c] << " vs " << expected[c];
                }
            }
        if (channels & CHANNEL_Z) {  // carried through from the input
            EXPECT_EQ(GetPixelAddress(&out.image, 3, 1, 12)[2],
                      GetPixelAddress(&in.image, 3, 1, 12)[2]);
        }
    }
    const Color c(0.3f, -0.2f, 1.7f, 0.6f);
    const Color got = ApplyPointOpsToColor(c, &op, 1), expected = reference(c);
    for (int k = 0; k < 4; ++k) EXPECT_TRUE(near(got[k], expected[k], tol)) << "colour " << k;
}

}  // namespace

TEST(PointOps, ClampThresholdAndCleanup) {
    const float low[4] = {0, 0.1f, 0.2f, 0}, high[4] = {1, 0.9f, 2, 0.5f};
    expectMatches(MakeClamp(low, high, true, false), [&](Color c) {
        for (int k = 0; k < 4; ++k) c[k] = std::max(c[k], low[k]);
        return c;
    });
    expectMatches(MakeClamp(low, high, true, true), [&](Color c) {
        for (int k = 0; k < 4; ++k) c[k] = std::min(std::max(c[k], low[k]), high[k]);
        return c;
    });
    const float t[4] = {0.5f, 0.25f, 1.0f, 0.5f}, below[4] = {-1, -1, -1, -1},
                above[4] = {9, 9, 9, 9};
    expectMatches(MakeThreshold(t, true, below, false, above), [&](Color c) {
        for (int k = 0; k < 4; ++k) c[k] = c[k] >= t[k] ? c[k] : below[k];  // equal is above
        return c;
    });
    expectMatches(MakeThreshold(t, false, below, true, above), [&](Color c) {
        for (int k = 0; k < 4; ++k) c[k] = c[k] >= t[k] ? above[k] : c[k];
        return c;
    });
    for (bool atOne : {false, true})
        expectMatches(MakeCleanupClamp(atOne), [&](Color c) {
            for (int k = 0; k < 3; ++k)
                c[k] = atOne ? std::clamp(c[k], 0.0f, 1.0f) : std::max(c[k], 0.0f);
            c.a = std::clamp(c.a, 0.0f, 1.0f);
            return c;
        });
}

// Powers from the tiny to the huge, subnormal included, against double
// precision. x^e is 2^(e log2 x) with e log2 x a float, whose rounding
// alone costs |e log2 x| 2^-24 ln 2 of relative error; beyond that, a few
// units in the last place.
TEST(PointOps, ExponentialIsAccurateOverTheWholeRange) {
    std::vector<float> values;
    for (float x = 1e-44f; x < 1e37f; x *= 1.37f) values.push_back(x);
    values.push_back(std::numeric_limits<float>::infinity());
    const int count = int(values.size()) / 4 * 4;
    for (const float e : {0.45f, 0.9f, 1.1f, 2.2f, -1.0f, 3.0f}) {
        const float exponent[4] = {e, e, e, e}, pivot[4] = {1, 1, 1, 1};
        const PointOp op = MakeExponential(exponent, pivot);
        for (int i = 0; i < count; i += 4) {
            const Color in(values[i], values[i + 1], values[i + 2], values[i + 3]);
            const Color out = ApplyPointOpsToColor(in, &op, 1);
            for (int k = 0; k < 4; ++k) {
                const double want = std::pow(double(in[k]), double(e));
                if (want > std::numeric_limits<float>::max())
                    EXPECT_EQ(out[k], std::numeric_limits<float>::infinity()) << in[k] << "^" << e;
                else if (want < 1e-37)  // below the normal range: zero or close to it
                    EXPECT_LT(out[k], 1e-37f) << in[k] << "^" << e;
                else
                    EXPECT_NEAR(out[k] / want, 1.0, 5e-7 + std::abs(std::log2(want)) * 6e-8)
                        << in[k] << "^" << e;
            }
        }
    }
}

// Groups of pixels with nothing special in them (no subnormal or infinite
// value, no result out of range) take a shorter way: each pixel must come
// out with the bits it gets alone, whatever its neighbours, or results would
// change with where tiles start.
TEST(PointOps, PowersGiveTheSameBitsWhateverTheirNeighbours) {
    std::vector<float> values;
    for (float x = 1e-30f; x < 1e30f; x *= 1.9f) values.push_back(x);
    const size_t normal = values.size();
    values.insert(values.end(), {1e-40f, std::numeric_limits<float>::infinity(), 0.5f, -2.0f});
    for (const float e : {0.45f, 0.9f, 2.2f, -1.0f, 3.0f})
        for (const float pv : {1.0f, 0.18f}) {
            const float exponent[4] = {e, e, e, e}, pivot[4] = {pv, pv, pv, pv};
            const PointOp op = MakeExponential(exponent, pivot);
            // All normal values first, then the same with the special ones mixed in.
            for (const size_t n : {normal, values.size()}) {
                std::vector<float> used(values.begin(), values.begin() + long(n));
                TestImage in(CHANNELS_RGBA, int64_t(n), used), out(CHANNELS_RGBA, int64_t(n), {0});
                ASSERT_EQ(ApplyPointOps(&out.image, &in.image, &op, 1), ERROR_NONE);
                for (int64_t x = 0; x < int64_t(n); ++x) {
                    const Color alone = ApplyPointOpsToColor(in.at(x, 0), &op, 1);
                    const Color got = out.at(x, 0);
                    for (int c = 0; c < 4; ++c)
                        ASSERT_EQ(std::memcmp(&got[c], &alone[c], 4), 0)
                            << in.at(x, 0)[c] << "^" << e << " pivot " << pv << ": " << got[c]
                            << " vs " << alone[c];
                }
            }
        }
}

TEST(PointOps, ContrastExponentialAndRange) {
    const float contrast[4] = {2, 0.5f, 1, 3}, pivot[4] = {0.18f, 0.5f, 0, 1};
    expectMatches(MakeContrast(contrast, pivot), [&](Color c) {
        for (int k = 0; k < 4; ++k) c[k] = (c[k] - pivot[k]) * contrast[k] + pivot[k];
        return c;
    });
    const float exponent[4] = {2.2f, 0.5f, 1.0f, 1.0f / 2.2f}, epivot[4] = {1, 0.18f, 1, 0};
    expectMatches(
        MakeExponential(exponent, epivot),
        [&](Color c) {
            for (int k = 0; k < 4; ++k) {
                const float p = epivot[k] > 0 ? epivot[k] : 1.0f;
                if (c[k] > 0) c[k] = p * std::pow(c[k] / p, exponent[k]);
            }
            return c;
        },
        2e-6f);
    // Compress: log2 about mid grey mapping 16 to 1; expand is its inverse.
    const float L = std::log2(1.0f + 16.0f / 0.18f);
    expectMatches(
        MakeCompressRange(0.18f, 16.0f, 1.0f, false),
        [&](Color c) {
            for (int k = 0; k < 3; ++k)
                c[k] = c[k] > 0 ? std::log2(1 + c[k] / 0.18f) / L
                                : c[k] / (0.18f * std::log(2.0f) * L);
            return c;
        },
        2e-6f);
    PointOp roundTrip[2] = {MakeCompressRange(0.18f, 16.0f, 1.0f, false),
                            MakeCompressRange(0.18f, 16.0f, 1.0f, true)};
    const Color back = ApplyPointOpsToColor(Color(12.0f, 0.18f, -0.3f, 0.5f), roundTrip, 2);
    EXPECT_NEAR(back.r, 12.0f, 1e-4f);
    EXPECT_NEAR(back.g, 0.18f, 1e-6f);
    EXPECT_NEAR(back.b, -0.3f, 1e-6f);
    EXPECT_EQ(back.a, 0.5f);
}

TEST(PointOps, AlphaFromColourAndBack) {
    expectMatches(MakeNContrastBoost(0.7f, false), [](Color c) {
        for (int k = 0; k < 3; ++k) {
            const float x = c[k];
            if (x >= 0 && x <= 1)
                c[k] =
                    ((6 * x * x * x * x * x - 15 * x * x * x * x + 10 * x * x * x) - x) * 0.7f + x;
        }
        return c;
    });
    expectMatches(PointOp{POINTOP_MAX_RGB_TO_ALPHA}, [](Color c) {
        c.a = std::max(c.r, std::max(c.g, c.b));
        return c;
    });
    expectMatches(PointOp{POINTOP_MIN_RGB_TO_ALPHA}, [](Color c) {
        c.a = std::min(c.r, std::min(c.g, c.b));
        return c;
    });
    for (uint64_t selector : {1, 2, 4, 3})
        expectMatches(MakeScreenRGBToAlpha(selector), [&](Color c) {
            const int key = selector == 1 ? 0 : selector == 2 ? 1 : selector == 4 ? 2 : -1;
            if (key < 0) {
                c.a = 0;
                return c;
            }
            c.a = std::clamp(1 - c[key] + std::max(c[(key + 1) % 3], c[(key + 2) % 3]), 0.0f, 1.0f);
            return c;
        });
    expectMatches(PointOp{POINTOP_MULT_INVERSE}, [](Color c) {
        if (c.a != 0)
            for (int k = 0; k < 3; ++k) c[k] /= c.a;
        return c;
    });
    expectMatches(PointOp{POINTOP_FRINGE}, [](Color c) {
        const float f = std::clamp(4 * c.a * (1 - c.a), 0.0f, 1.0f);
        return c * f;
    });
}

TEST(PointOps, MatrixPosterizeLogAndBloom) {
    const float m[20] = {1,    0.1f, 0,    0, 0.01f, 0, 2, 0, 0, 0,
                         0.5f, 0.5f, 0.5f, 0, -0.1f, 0, 0, 0, 1, 0};
    expectMatches(MakeColorMatrix(m), [&](Color c) {
        Color o;
        for (int r = 0; r < 4; ++r)
            o[r] = m[5 * r] * c.r + m[5 * r + 1] * c.g + m[5 * r + 2] * c.b + m[5 * r + 3] * c.a +
                   m[5 * r + 4];
        return o;
    });
    // A gain and offset per channel, the common case, has a way of its own.
    const float gainOffset[20] = {1.1f, 0, 0, 0, 0.01f, 0, 0.9f, 0, 0,    -0.2f,
                                  0,    0, 2, 0, 0,     0, 0,    0, 0.5f, 0.25f};
    expectMatches(MakeColorMatrix(gainOffset), [&](Color c) {
        for (int r = 0; r < 4; ++r) c[r] = c[r] * gainOffset[6 * r] + gainOffset[5 * r + 4];
        return c;
    });
    expectMatches(MakePosterize(4, 0, 1, false, true), [](Color c) {
        for (int k = 0; k < 3; ++k) c[k] = std::nearbyint(std::clamp(c[k], 0.0f, 1.0f) * 3) / 3;
        return c;
    });
    const float black[4] = {95 / 1023.f, 95 / 1023.f, 95 / 1023.f, 0},
                white[4] = {685 / 1023.f, 685 / 1023.f, 685 / 1023.f, 1},
                density[4] = {3.41f, 3.41f, 3.41f, 1};
    auto toLog = [&](Color c) {
        for (int k = 0; k < 3; ++k) {
            const float b = std::pow(10.0f, (black[k] - white[k]) * density[k]);
            c[k] = white[k] + std::log10(std::max(c[k] * (1 - b) + b, 1e-30f)) / density[k];
        }
        return c;
    };
    expectMatches(MakeLogConvert(black, white, density, true, false), toLog, 3e-5f);
    PointOp there[2] = {MakeLogConvert(black, white, density, true, false),
                        MakeLogConvert(black, white, density, false, false)};
    EXPECT_NEAR(ApplyPointOpsToColor(Color(0.18f, 1.0f, 4.0f, 1), there, 2).b, 4.0f, 2e-4f);
    expectMatches(MakeBloomControl(0.8f, 0.25f, false, false), [](Color c) {
        for (int k = 0; k < 3; ++k) c[k] = c[k] > 0.8f ? 0.8f + (c[k] - 0.8f) * 0.25f : c[k];
        return c;
    });
    expectMatches(MakeBloomControl(0.8f, 0.25f, true, true), [](Color c) {
        const float l = 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b;
        const float f = l > 0.8f ? 0.8f + (l - 0.8f) * 0.25f : 0.0f;
        const float s = l > 0 ? f / l : 0.0f;
        for (int k = 0; k < 3; ++k) c[k] *= s;
        return c;
    });
}

TEST(PointOps, ColourSpacesAndCurves) {
    // HSV round trip, and hue of pure colours.
    PointOp hsv[2] = {MakeHSVConvert(true), MakeHSVConvert(false)};
    const Color c(0.2f, 0.7f, 0.4f, 0.5f);
    const Color back = ApplyPointOpsToColor(c, hsv, 2);
    for (int k = 0; k < 4; ++k) EXPECT_NEAR(back[k], c[k], 1e-6f);
    const Color green = ApplyPointOpsToColor(Color(0, 1, 0, 1), hsv, 1);
    EXPECT_NEAR(green.r, 1.0f / 3.0f, 1e-6f);
    EXPECT_EQ(green.g, 1.0f);
    PointOp hue = MakeHSVToAlpha(0), value = MakeHSVToAlpha(2);
    EXPECT_NEAR(ApplyPointOpsToColor(Color(0, 0, 1, 1), &hue, 1).a, 2.0f / 3.0f, 1e-6f);
    EXPECT_EQ(ApplyPointOpsToColor(Color(0.2f, 0.9f, 0.4f, 1), &value, 1).a, 0.9f);

    // Lab: white is (100, 0, 0); mid grey 0.18 has L* of about 49.5.
    const Color white = LabConvert(Color(1, 1, 1, 1), true);
    EXPECT_NEAR(white.r, 100.0f, 1e-3f);
    EXPECT_NEAR(white.g, 0.0f, 1e-3f);
    EXPECT_NEAR(LabConvert(Color(0.18f, 0.18f, 0.18f, 1), true).r, 49.496f, 1e-2f);
    const Color lab = LabConvert(LabConvert(c, true), false);
    for (int k = 0; k < 3; ++k) EXPECT_NEAR(lab[k], c[k], 1e-5f);

    // Curves pass through their points, stay monotone, continue linearly.
    const std::vector<float> pts = {0, 0, 0.5f, 0.8f, 1, 1};
    const std::vector<float> none;
    const Color curved = ApplyRGBACurvesColor(Color(0.5f, 0.25f, 2.0f, 0.7f), pts.data(), 3,
                                              pts.data(), 3, pts.data(), 3, none.data(), 0);
    EXPECT_NEAR(curved.r, 0.8f, 1e-6f);
    EXPECT_GT(curved.g, 0.25f);
    EXPECT_LT(curved.g, 0.8f);
    EXPECT_GT(curved.b, 1.0f);
    EXPECT_EQ(curved.a, 0.7f);
    // The luma curve scales colour by the curve's gain on luma.
    const Imath::Color3<float> w(0.2126f, 0.7152f, 0.0722f);
    const Color grey = ApplyLumaCurveColor(Color(0.5f, 0.5f, 0.5f, 1), w, pts.data(), 3);
    EXPECT_NEAR(grey.r, 0.8f, 1e-5f);
}

TEST(PointOps, ChainsAndSpecialValuesPassThrough) {
    // A chain runs in one call exactly as its steps run one by one.
    const float g[4] = {2, 2, 2, 1}, p[4] = {1, 1, 1, 1}, k[4] = {0.5f, 2, 1, 1},
                z[4] = {0, 0, 0, 0};
    PointOp chain[3] = {MakeExponential(g, p), MakeContrast(k, z), MakeCleanupClamp(false)};
    TestImage in(CHANNELS_RGBA, 23, kValues), once(CHANNELS_RGBA, 23, {0}),
        steps(CHANNELS_RGBA, 23, {0});
    ASSERT_EQ(ApplyPointOps(&once.image, &in.image, chain, 3), ERROR_NONE);
    ASSERT_EQ(ApplyPointOps(&steps.image, &in.image, &chain[0], 1), ERROR_NONE);
    for (int s = 1; s < 3; ++s)
        ASSERT_EQ(ApplyPointOps(&steps.image, &steps.image, &chain[s], 1), ERROR_NONE);
    EXPECT_EQ(once.storage, steps.storage);

    // NaN and infinities go through without trouble.
    const float inf = std::numeric_limits<float>::infinity(), nan = std::nanf("");
    TestImage odd(CHANNELS_RGBA, 8, {nan, inf, -inf, 0.5f});
    EXPECT_EQ(ApplyPointOps(&odd.image, &odd.image, chain, 3), ERROR_NONE);
    const float zeroGamma[4] = {0, 0, 0, 0};
    PointOp exp = MakeExponential(zeroGamma, p);
    EXPECT_EQ(ApplyPointOps(&odd.image, &odd.image, &exp, 1), ERROR_NONE);

    // The input must cover the output.
    TestImage small(CHANNELS_RGBA, 4, kValues);
    EXPECT_EQ(ApplyPointOps(&in.image, &small.image, chain, 1), ERROR_OUT_OF_BOUNDS);
}
