// Per-pixel access for the expression language.
#include <gtest/gtest.h>

#include <functional>

#include "expressionimage.h"
#include "imagebuffer.h"
#include "imglib/pixels.h"

using TESSERA::expressions::Color4;
using TESSERA::expressions::Image;

namespace {

std::string errorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "no error";
}

const std::string kReadOut = "Out of bounds access error, you maybe want the padding.";
const std::string kWriteOut = "Out of bounds access error";

}  // namespace

TEST(ExpressionImage, WrapsAnImageWithHalfOpenBounds) {
    TESSERA::TempImageBuffer buffer(IMGLIB::CHANNEL_R | IMGLIB::CHANNEL_A, UTIL::Rect(-2, 3, 4, 7),
                                    "expr");
    const float zero[4] = {0, 0, 0, 0};
    IMGLIB::Fill(buffer.getImage(), zero);
    Image image(buffer.getImage());
    EXPECT_EQ(image.left(), -2);
    EXPECT_EQ(image.bottom(), 3);
    EXPECT_EQ(image.right(), 4);
    EXPECT_EQ(image.top(), 7);
    EXPECT_EQ(image.width(), 6);
    EXPECT_EQ(image.height(), 4);
    EXPECT_TRUE(image.isPixelValid(-2, 3));
    EXPECT_FALSE(image.isPixelValid(4, 3));
    EXPECT_FALSE(image.isPixelValid(0, 7));

    image.setPixel(-2, 3, Color4(0.5f, 0.6f, 0.7f, 0.8f));
    // G and B are not in the image: they read back as 0.
    EXPECT_EQ(image.getPixel(-2, 3), Color4(0.5f, 0, 0, 0.8f));
    Image copy = image;  // shares the pixels
    EXPECT_EQ(copy(-2, 3), Color4(0.5f, 0, 0, 0.8f));

    EXPECT_EQ(errorOf([&] { image.getPixel(4, 3); }), kReadOut);
    EXPECT_EQ(errorOf([&] { image(0, 7); }), kReadOut);
    EXPECT_EQ(errorOf([&] { image.setPixel(-3, 3, Color4()); }), kWriteOut);
}

TEST(ExpressionImage, BackgroundAndDefaultImages) {
    Image background(0, 0, 10, 10, Color4(1, 2, 3, 4));
    EXPECT_FALSE(background.isPixelValid(5, 5));
    EXPECT_EQ(background.getPixel(5, 5), Color4(1, 2, 3, 4));
    EXPECT_EQ(errorOf([&] { background.setPixel(5, 5, Color4()); }),
              "You can't set the color on a background image");
    // The bounds test comes first.
    EXPECT_EQ(errorOf([&] { background.setPixel(10, 5, Color4()); }), kWriteOut);

    Image none;
    EXPECT_EQ(none.width(), 0);
    EXPECT_EQ(errorOf([&] { none.getPixel(0, 0); }), kReadOut);
    EXPECT_EQ(errorOf([&] { none.setPixel(0, 0, Color4()); }), kWriteOut);
}

TEST(ExpressionImage, BoundsBeyond32BitsAreTruncated) {
    IMGLIB::Image wide;
    wide.channels = IMGLIB::CHANNELS_RGBA;
    wide.x1 = (int64_t(1) << 32) + 5;
    wide.x2 = (int64_t(1) << 32) + 9;
    wide.y2 = 1;
    Image image(&wide);
    EXPECT_EQ(image.left(), 5);
    EXPECT_EQ(image.right(), 9);
}
