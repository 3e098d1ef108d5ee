// The two-input operators against their closed forms, with backgrounds
// standing in outside an input and for a missing one.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "imglib/compositeops.h"
#include "imglib/error.h"
#include "imglib/pixels.h"

using namespace IMGLIB;
using Color = Imath::Color4<float>;

namespace {

struct Owned {
    Owned(uint64_t channels, int64_t x1, int64_t x2, int seed) {
        image.channels = channels;
        image.x1 = x1;
        image.x2 = x2;
        image.y2 = 1;
        image.rowBytes = ((x2 - x1) * 4 * __builtin_popcountll(channels) + 15) & ~int64_t(15);
        pixels.assign(static_cast<size_t>(image.rowBytes / 4), 0.0f);
        image.pixelPtr = pixels.data();
        for (int64_t x = x1; x < x2; ++x) {
            const float v[4] = {0.1f * float((x + seed) % 7) - 0.2f, 0.3f * float((x * seed) % 5),
                                1.5f - 0.2f * float(x % 9), float((x + seed) % 3) / 2.0f};
            SetPixel(&image, x, 0, v);
        }
    }
    Color at(int64_t x) const {
        float v[4] = {0, 0, 0, 0};
        GetPixel(&image, x, 0, v);
        return Color(v[0], v[1], v[2], v[3]);
    }
    Image image;
    std::vector<float> pixels;
};

using Formula = std::function<Color(const Color& b, const Color& a)>;  // input 0, input 1

Color perChannel(const Color& x, const Color& y, float (*f)(float, float)) {
    return Color(f(x.r, y.r), f(x.g, y.g), f(x.b, y.b), f(x.a, y.a));
}

// out over [0, 40): input 0 covers [0, 30), input 1 covers [10, 40).
void expectOperator(BinaryOpKind kind, bool flag, const Formula& formula, float tol = 1e-6f) {
    const Color bg0(0.1f, 0.2f, 0.3f, 0.4f), bg1(0.5f, 0, 0, 0.25f);
    Owned in0(CHANNELS_RGBA, 0, 30, 3), in1(CHANNELS_RGBA, 10, 40, 5), out(CHANNELS_RGBA, 0, 40, 0);
    BinaryOp op;
    op.kind = kind;
    op.flag = flag;
    ASSERT_EQ(ApplyBinaryOp(&out.image, &in0.image, &in1.image, op, bg0, bg1), ERROR_NONE);
    for (int64_t x = 0; x < 40; ++x) {
        const Color b = x < 30 ? in0.at(x) : bg0, a = x >= 10 ? in1.at(x) : bg1;
        const Color expected = formula(b, a), got = out.at(x);
        for (int c = 0; c < 4; ++c)
            ASSERT_NEAR(got[c], expected[c], tol * std::max(1.0f, std::fabs(expected[c])))
                << "kind " << kind << " x " << x << " channel " << c;
    }
    const Color colour = ApplyBinaryOpToColor(op, bg0, bg1), expected = formula(bg0, bg1);
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(colour[c], expected[c], 1e-6f);
}

float clamp01(float v) {
    return std::min(std::max(v, 0.0f), 1.0f);
}

}  // namespace

TEST(CompositeOps, ArithmeticBlends) {
    expectOperator(BINARYOP_ADD, false, [](Color b, Color a) { return b + a; });
    expectOperator(BINARYOP_AVERAGE, false, [](Color b, Color a) { return (b + a) * 0.5f; });
    expectOperator(BINARYOP_SUBTRACT, false, [](Color b, Color a) { return b - a; });
    expectOperator(BINARYOP_DIFFERENCE, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return std::fabs(x - y); });
    });
    expectOperator(BINARYOP_MULTIPLY, false, [](Color b, Color a) { return b * a; });
    expectOperator(BINARYOP_DIVIDE, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return y != 0 ? x / y : 0.0f; });
    });
    expectOperator(BINARYOP_EXCLUSION, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return x + y - 2 * x * y; });
    });
    expectOperator(BINARYOP_GEOMETRIC, false, [](Color b, Color a) {
        return perChannel(b, a,
                          [](float x, float y) { return x + y != 0 ? 2 * x * y / (x + y) : 0.0f; });
    });
    expectOperator(BINARYOP_HYPOTENUSE, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return std::sqrt(x * x + y * y); });
    });
    expectOperator(BINARYOP_MAX, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return std::max(x, y); });
    });
    expectOperator(BINARYOP_MIN, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return std::min(x, y); });
    });
    auto luma = [](const Color& c) { return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b; };
    expectOperator(BINARYOP_MAX, true, [&](Color b, Color a) { return luma(a) > luma(b) ? a : b; });
    expectOperator(BINARYOP_MIN, true, [&](Color b, Color a) { return luma(a) < luma(b) ? a : b; });
}

TEST(CompositeOps, PorterDuffAndScreen) {
    for (bool flag : {false, true}) {
        auto cov = [flag](float alpha) { return flag ? clamp01(alpha) : alpha; };
        expectOperator(BINARYOP_OVER, flag,
                       [&](Color b, Color a) { return a + b * (1 - cov(a.a)); });
        expectOperator(BINARYOP_UNDER, flag,
                       [&](Color b, Color a) { return b + a * (1 - cov(b.a)); });
        expectOperator(BINARYOP_IN, flag, [&](Color b, Color a) { return b * cov(a.a); });
        expectOperator(BINARYOP_OUT, flag, [&](Color b, Color a) { return b * (1 - cov(a.a)); });
        expectOperator(BINARYOP_ATOP, flag, [&](Color b, Color a) {
            Color o = a * cov(b.a) + b * (1 - cov(a.a));
            o.a = b.a;
            return o;
        });
    }
    expectOperator(BINARYOP_SCREEN, false, [](Color b, Color a) {
        return perChannel(b, a, [](float x, float y) { return x + y - x * y; });
    });
    expectOperator(BINARYOP_SCREEN, true, [](Color b, Color a) {
        return perChannel(
            b, a, [](float x, float y) { return x > 1 || y > 1 ? std::max(x, y) : x + y - x * y; });
    });
}

TEST(CompositeOps, MissingInputsAndOtherLayouts) {
    // A null input is its background colour everywhere; output RGB only.
    Owned in1(CHANNELS_RGBA, 0, 9, 2), out(CHANNELS_RGB, 0, 9, 0);
    const Color bg0(0.2f, 0.4f, 0.6f, 1.0f);
    ASSERT_EQ(Over(&out.image, nullptr, &in1.image, false, bg0, Color(0, 0, 0, 0)), ERROR_NONE);
    for (int64_t x = 0; x < 9; ++x) {
        const Color a = in1.at(x), expected = a + bg0 * (1 - a.a), got = out.at(x);
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(got[c], expected[c], 1e-6f);
    }
    Owned mixed(CHANNELS_RGBA, 0, 9, 0);
    ASSERT_EQ(Mix(&mixed.image, nullptr, &in1.image, 0.25f, bg0, Color(0, 0, 0, 0)), ERROR_NONE);
    EXPECT_NEAR(mixed.at(4).g, bg0.g * 0.75f + in1.at(4).g * 0.25f, 1e-6f);
    EXPECT_EQ(Over(nullptr, nullptr, nullptr, false, bg0, bg0), ERROR_NULL_IMAGE);
}
