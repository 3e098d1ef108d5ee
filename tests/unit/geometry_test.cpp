// Rectangles, regions and the tile grid.
#include <gtest/gtest.h>

#include <sstream>

#include "tileid.h"
#include "util/exceptions.h"

using TESSERA::TileID;
using UTIL::Rect;
using UTIL::Region;

namespace {

std::vector<std::pair<int, int>> indices(const std::vector<TileID>& tiles) {
    std::vector<std::pair<int, int>> out;
    for (const TileID& t : tiles) out.emplace_back(t.xIndex(), t.yIndex());
    return out;
}

template <class T>
std::string text(const T& value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

}  // namespace

TEST(Rect, HalfOpenEdgesAndNullRectangles) {
    const Rect r(0, 0, 10, 5);
    EXPECT_TRUE(r.contains(0, 0));
    EXPECT_TRUE(r.contains(9, 4));
    EXPECT_FALSE(r.contains(10, 0));
    EXPECT_FALSE(r.contains(0, 5));
    EXPECT_EQ(r.area(), 50);

    EXPECT_TRUE(Rect(3, 0, 3, 10).isNull());
    EXPECT_TRUE(Rect(5, 5, 4, 6).isNull());
    EXPECT_EQ(Rect(3, 0, 3, 10), Rect(9, 9, 1, 1));  // all null rectangles are equal
    EXPECT_EQ(Rect(5, 5, 4, 6).area(), 0);
    EXPECT_TRUE(r.contains(Rect()));
    EXPECT_FALSE(Rect().contains(r));
    EXPECT_EQ(text(r), "[0, 0, 10, 5)");
    EXPECT_EQ(text(Rect()), "[null]");
    EXPECT_EQ(Rect::infinite(), Rect(-1000000, -1000000, 1000000, 1000000));
}

TEST(Rect, IntersectionBoundingBoxAndGrowth) {
    const Rect a(0, 0, 10, 10), b(5, -5, 20, 3);
    EXPECT_EQ(a.intersection(b), Rect(5, 0, 10, 3));
    EXPECT_TRUE(a.intersection(Rect(10, 0, 20, 10)).isNull());  // touching edges share no pixel
    EXPECT_EQ(a.boundingBox(b), Rect(0, -5, 20, 10));
    EXPECT_EQ(a.boundingBox(Rect(100, 100, 50, 50)), a);  // a null operand is ignored
    EXPECT_EQ(a.grown(2, 3), Rect(-2, -3, 12, 13));
    EXPECT_EQ(a.grown(1, 2, 3, 4), Rect(-1, -2, 13, 14));
    EXPECT_TRUE(a.grown(-5, 0).isNull());
    EXPECT_TRUE(Rect().grown(5, 5).isNull());
    EXPECT_EQ(a.translated(-3, 4), Rect(-3, 4, 7, 14));
}

TEST(Region, StaysDisjointAndAnswersContainment) {
    Region region;
    region.add(Rect(0, 0, 10, 10));
    region.add(Rect(5, 5, 15, 15));  // overlaps a quarter
    region.add(Rect(2, 2, 4, 4));    // already inside
    region.add(Rect());
    EXPECT_EQ(region.area(), 100 + 100 - 25);
    int64_t sum = 0;
    for (const Rect& r : region.rects()) sum += r.area();
    EXPECT_EQ(sum, region.area()) << "rectangles overlap";

    EXPECT_TRUE(region.contains(Rect(0, 0, 10, 10)));
    EXPECT_TRUE(region.contains(Rect(8, 2, 12, 12)) == false);  // (10..12, 2..5) is outside
    EXPECT_TRUE(region.contains(Rect(8, 6, 12, 12)));           // spans both rectangles
    EXPECT_TRUE(region.contains(14, 14));
    EXPECT_FALSE(region.contains(14, 4));
    EXPECT_EQ(region.boundingBox(), Rect(0, 0, 15, 15));
    EXPECT_TRUE(region.intersects(Rect(12, 12, 20, 20)));
    EXPECT_FALSE(region.intersects(Rect(12, 0, 20, 4)));
}

TEST(Region, IntersectionSubtractionGrowthAndSimplify) {
    Region region(Rect(0, 0, 10, 10));
    region.add(Rect(20, 0, 30, 10));
    EXPECT_EQ(region.intersection(Rect(5, 5, 25, 6)).area(), 5 + 5);
    Region other(Rect(8, 0, 22, 1));
    EXPECT_EQ(region.intersection(other).area(), 2 + 2);
    EXPECT_EQ(region.subtracted(Rect(0, 0, 30, 5)).area(), 50 + 50);
    const Region rest = Region(Rect(0, 0, 30, 10)).subtracted(region);
    EXPECT_EQ(rest.area(), 100);
    EXPECT_TRUE(rest.contains(Rect(10, 0, 20, 10)));
    EXPECT_TRUE(Region(Rect(2, 2, 4, 4)).subtracted(region).isEmpty());
    EXPECT_EQ(region.grown(1, 1).boundingBox(), Rect(-1, -1, 31, 11));
    EXPECT_EQ(region.translated(1, 2).boundingBox(), Rect(1, 2, 31, 12));

    // Four quarters of a square simplify to one rectangle with the same pixels.
    Region quarters;
    quarters.add(Rect(0, 0, 5, 5));
    quarters.add(Rect(5, 0, 10, 5));
    quarters.add(Rect(0, 5, 5, 10));
    quarters.add(Rect(5, 5, 10, 10));
    const Region before = quarters;
    quarters.simplify();
    ASSERT_EQ(quarters.size(), 1u);
    EXPECT_EQ(quarters.rects()[0], Rect(0, 0, 10, 10));
    EXPECT_EQ(quarters, before);
    EXPECT_NE(quarters, Region(Rect(0, 0, 10, 9)));
    EXPECT_EQ(text(Region(Rect(0, 0, 1, 1))), "{[0, 0, 1, 1)}");
    EXPECT_EQ(text(Region()), "{}");
}

TEST(TileID, ConvertsRectanglesRowMajor) {
    std::vector<TileID> tiles{TileID(7, 7, 1, 1)};
    EXPECT_EQ(TileID::convertToTileIDs(Rect(), tiles, 128, 128), 0u);
    EXPECT_TRUE(tiles.empty());
    EXPECT_EQ(TileID::convertToTileIDs(Rect(5, 5, 5, 9), tiles, TileID::INFINITE_SIZE,
                                       TileID::INFINITE_SIZE),
              0u);

    EXPECT_EQ(TileID::convertToTileIDs(Rect(0, 0, 256, 256), tiles, 128, 128), 4u);
    EXPECT_EQ(indices(tiles), (std::vector<std::pair<int, int>>{{0, 0}, {1, 0}, {0, 1}, {1, 1}}));
    EXPECT_EQ(tiles[3].getTileWidth(), 128);

    TileID::convertToTileIDs(Rect(-1, 0, 1, 1), tiles, 128, 128);
    EXPECT_EQ(indices(tiles), (std::vector<std::pair<int, int>>{{-1, 0}, {0, 0}}));

    TileID::convertToTileIDs(Rect(0, 0, 300, 300), tiles, TileID::INFINITE_SIZE, 128);
    EXPECT_EQ(indices(tiles), (std::vector<std::pair<int, int>>{{0, 0}, {0, 1}, {0, 2}}));
    EXPECT_EQ(tiles[0].getTileWidth(), TileID::INFINITE_SIZE);

    TileID::convertToTileIDs(Rect(-10, 0, 130, 300), tiles, 128, TileID::INFINITE_SIZE);
    EXPECT_EQ(indices(tiles), (std::vector<std::pair<int, int>>{{-1, 0}, {0, 0}, {1, 0}}));

    TileID::convertToTileIDs(Rect(0, 0, 10, 10), tiles, TileID::INFINITE_SIZE,
                             TileID::INFINITE_SIZE);
    ASSERT_EQ(tiles.size(), 1u);
    EXPECT_EQ(tiles[0].getTileWidth(), TileID::INFINITE_SIZE);
    EXPECT_EQ(tiles[0].getTileHeight(), TileID::INFINITE_SIZE);
}

TEST(TileID, ConvertsRegionsListingEachTileOnce) {
    Region region;
    region.add(Rect(0, 0, 100, 100));
    region.add(Rect(100, 50, 200, 150));  // shares tile (0,0) of a 128 grid
    std::vector<TileID> tiles;
    EXPECT_EQ(TileID::convertToTileIDs(region, tiles, 128, 128), 4u);
    EXPECT_EQ(indices(tiles), (std::vector<std::pair<int, int>>{{0, 0}, {1, 0}, {0, 1}, {1, 1}}));

    std::vector<TileID> kept{TileID(3, 3, 1, 1)};
    EXPECT_EQ(TileID::convertToTileIDs(Region(), kept, 128, 128), 0u);
    EXPECT_EQ(kept.size(), 1u);  // an empty region leaves the list alone
    EXPECT_EQ(TileID::convertToTileIDs(region, tiles, TileID::INFINITE_SIZE, 64), 3u);
}

TEST(TileID, RectanglesOfFiniteRowAndFullFrameTiles) {
    EXPECT_EQ(TileID(3, 2, 128, 64).rect(), Rect(384, 128, 512, 192));
    EXPECT_EQ(TileID(-1, -1, 128, 128).rect(), Rect(-128, -128, 0, 0));
    EXPECT_EQ(TileID(0, 5, TileID::INFINITE_SIZE, 10).rect(), Rect(-1000000, 50, 1000000, 60));
    // A column tile is the whole square, not a column strip.
    EXPECT_EQ(TileID(4, 0, 16, TileID::INFINITE_SIZE).rect(), Rect::infinite());
    EXPECT_EQ(TileID(0, 0, TileID::INFINITE_SIZE, TileID::INFINITE_SIZE).rect(), Rect::infinite());
    EXPECT_EQ(TileID().rect(), Rect());
}

TEST(TileID, ComparesByIndicesOnly) {
    const TileID a(1, 2, 64, 64), b(1, 2, 128, 128);
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_TRUE(TileID(5, 0, 1, 1) < TileID(0, 1, 1, 1));  // rows first
    EXPECT_TRUE(TileID(0, 1, 1, 1) < TileID(1, 1, 1, 1));
    EXPECT_NE(TileID(0, 1, 1, 1), TileID(1, 0, 1, 1));
}
