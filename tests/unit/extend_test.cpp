// Edge extension by clamping and mirroring, against hand-computed images.
#include <gtest/gtest.h>

#include <vector>

#include "imglib/error.h"
#include "imglib/extend.h"
#include "imglib/pixels.h"

using namespace IMGLIB;
using UTIL::Rect;

namespace {

// A one-channel image over r whose pixel (x, y) holds 10 * y + x inside
// `data` and -1 elsewhere.
struct Grid {
    Grid(const Rect& r, const Rect& data) {
        image.channels = CHANNEL_R;
        image.x1 = r.xmin;
        image.y1 = r.ymin;
        image.x2 = r.xmax;
        image.y2 = r.ymax;
        image.rowBytes = ((r.width() * 4) + 15) & ~int64_t(15);
        pixels.assign(static_cast<size_t>(image.rowBytes / 4 * r.height()), -1.0f);
        image.pixelPtr = pixels.data();
        for (int64_t y = data.ymin; y < data.ymax; ++y)
            for (int64_t x = data.xmin; x < data.xmax; ++x) at(x, y) = float(10 * y + x);
    }
    float& at(int64_t x, int64_t y) { return *GetPixelAddress(&image, x, y, 4); }
    std::vector<float> row(int64_t y) {
        std::vector<float> out;
        for (int64_t x = image.x1; x < image.x2; ++x) out.push_back(at(x, y));
        return out;
    }
    Image image;
    std::vector<float> pixels;
};

}  // namespace

TEST(Extend, CoordinateMaps) {
    // Source columns [0, 4).
    std::vector<int64_t> clamp, mirror;
    for (int64_t c = -5; c < 10; ++c) {
        clamp.push_back(ClampCoordinate(c, 0, 4));
        mirror.push_back(MirrorCoordinate(c, 0, 4));
    }
    EXPECT_EQ(clamp, (std::vector<int64_t>{0, 0, 0, 0, 0, 0, 1, 2, 3, 3, 3, 3, 3, 3, 3}));
    EXPECT_EQ(mirror, (std::vector<int64_t>{3, 3, 2, 1, 0, 0, 1, 2, 3, 3, 2, 1, 0, 0, 1}));
}

TEST(Extend, ClampRepeatsTheEdgePixels) {
    const Rect source(2, 1, 5, 3);  // columns 2..4, rows 1..2
    Grid grid(Rect(0, 0, 7, 4), source);
    std::vector<ExtendAction> actions;
    SplitRectToClampExtendActions(Rect(0, 0, 7, 4), source, actions);
    EXPECT_EQ(actions.size(), 8u);
    ASSERT_EQ(DoExtendActions(&grid.image, actions, &grid.image), ERROR_NONE);
    EXPECT_EQ(grid.row(0), (std::vector<float>{12, 12, 12, 13, 14, 14, 14}));
    EXPECT_EQ(grid.row(1), (std::vector<float>{12, 12, 12, 13, 14, 14, 14}));
    EXPECT_EQ(grid.row(2), (std::vector<float>{22, 22, 22, 23, 24, 24, 24}));
    EXPECT_EQ(grid.row(3), (std::vector<float>{22, 22, 22, 23, 24, 24, 24}));

    EXPECT_EQ(GetRequiredClampInputRect(Rect(0, 0, 7, 4), source), source);
    // Wholly left of the source: only its first column is read.
    EXPECT_EQ(GetRequiredClampInputRect(Rect(-10, 2, 0, 3), source), Rect(2, 2, 3, 3));
    // Inside: exactly the rectangle itself, and nothing to do.
    EXPECT_EQ(GetRequiredClampInputRect(Rect(3, 1, 4, 2), source), Rect(3, 1, 4, 2));
    actions.clear();
    SplitRectToClampExtendActions(Rect(3, 1, 4, 2), source, actions);
    EXPECT_TRUE(actions.empty());
}

TEST(Extend, MirrorReflectsAboutTheEdges) {
    const Rect source(2, 1, 5, 3);
    Grid grid(Rect(-1, 0, 9, 4), source);
    std::vector<ExtendAction> actions;
    SplitRectToMirrorExtendActions(Rect(-1, 0, 9, 4), source, actions);
    ASSERT_EQ(DoExtendActions(&grid.image, actions, &grid.image), ERROR_NONE);
    // Columns -1..8 map to 4 3 2 | 2 3 4 | 4 3 2 2; rows 0..3 to 1 | 1 2 | 2.
    EXPECT_EQ(grid.row(0), (std::vector<float>{14, 13, 12, 12, 13, 14, 14, 13, 12, 12}));
    EXPECT_EQ(grid.row(1), (std::vector<float>{14, 13, 12, 12, 13, 14, 14, 13, 12, 12}));
    EXPECT_EQ(grid.row(3), (std::vector<float>{24, 23, 22, 22, 23, 24, 24, 23, 22, 22}));

    // A rectangle just beyond the right edge reads the columns it mirrors.
    EXPECT_EQ(GetRequiredMirroredInputRect(Rect(5, 1, 7, 3), source), Rect(3, 1, 5, 3));
    // Far away but short: still only what it mirrors (12 -> column 3).
    EXPECT_EQ(GetRequiredMirroredInputRect(Rect(12, 1, 13, 2), source), Rect(3, 1, 4, 2));
    // Two source widths or more: the whole source.
    EXPECT_EQ(GetRequiredMirroredInputRect(Rect(-20, 1, 20, 2), source), Rect(2, 1, 5, 2));
}

TEST(Extend, ReadsFromASeparateSourceImageAndChecksBounds) {
    const Rect source(0, 0, 2, 2);
    Grid src(source, source);
    Grid dst(Rect(4, 0, 6, 2), Rect());  // right of the source, sharing no pixel
    std::vector<ExtendAction> actions;
    SplitRectToClampExtendActions(Rect(4, 0, 6, 2), source, actions);
    ASSERT_EQ(DoExtendActions(&dst.image, actions, &src.image), ERROR_NONE);
    EXPECT_EQ(dst.row(0), (std::vector<float>{1, 1}));
    EXPECT_EQ(dst.row(1), (std::vector<float>{11, 11}));
    // The source image lacks the column the action reads.
    Grid narrow(Rect(0, 0, 1, 2), Rect(0, 0, 1, 2));
    EXPECT_EQ(DoExtendActions(&dst.image, actions, &narrow.image), ERROR_OUT_OF_BOUNDS);
}
