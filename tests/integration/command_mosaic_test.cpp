// `tessera mosaic`: each file fitted into its cell, aspect kept, centred,
// labelled; checked at known pixels of the sheet.
#include <OpenImageIO/imagebuf.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "support/command_test.h"

namespace {

class CommandMosaicTest : public TESSERA::testing::CommandTest {
protected:
    std::array<float, 4> pixel(const OIIO::ImageBuf& image, int x, int y) {
        std::array<float, 4> p{};
        image.getpixel(x, y, p.data());
        return p;
    }
};

TEST_F(CommandMosaicTest, EachFileFillsItsCellAtItsAspect) {
    // A square red file off the origin, and a wide green one (4:1).
    ASSERT_EQ(tessera("--constant color=1,0,0,1 area=100,50,164,114 -o red.exr dataType=float"), 0);
    ASSERT_EQ(tessera("--constant color=0,1,0,1 area=0,0,128,32 -o green.exr dataType=float"), 0);
    ASSERT_EQ(tessera("mosaic red.exr green.exr -o sheet.exr --cell 32 32 --no-labels -q"), 0)
        << text("err.txt");
    OIIO::ImageBuf sheet((dir / "sheet.exr").string());
    ASSERT_TRUE(sheet.read(0, 0, true, OIIO::TypeDesc::FLOAT)) << sheet.geterror();
    // Two columns of 32 + 2 x 8 margin, one row.
    EXPECT_EQ(sheet.spec().width, 96);
    EXPECT_EQ(sheet.spec().height, 48);
    const std::array<float, 4> red{1, 0, 0, 1}, green{0, 1, 0, 1};
    // The red file fills its cell [8, 8, 40, 40].
    EXPECT_EQ(pixel(sheet, 8, 8), red);
    EXPECT_EQ(pixel(sheet, 39, 39), red);
    EXPECT_NE(pixel(sheet, 7, 7), red);
    // The green one is 32 x 8, centred: rows 20 to 27 of the cell [56, 8, 88, 40].
    EXPECT_EQ(pixel(sheet, 56, 20), green);
    EXPECT_EQ(pixel(sheet, 87, 27), green);
    EXPECT_NE(pixel(sheet, 70, 19), green);
    EXPECT_NE(pixel(sheet, 70, 28), green);

    // Labels: the band under each cell holds text.
    ASSERT_EQ(tessera("mosaic red.exr green.exr -o labelled.exr --cell 32 32 -q"), 0)
        << text("err.txt");
    OIIO::ImageBuf labelled((dir / "labelled.exr").string());
    ASSERT_TRUE(labelled.read(0, 0, true, OIIO::TypeDesc::FLOAT));
    EXPECT_EQ(labelled.spec().height, 70);
    float brightest = 0;
    for (int y = 48; y < 70; ++y)
        for (int x = 0; x < 48; ++x) brightest = std::max(brightest, pixel(labelled, x, y)[0]);
    EXPECT_GT(brightest, 0.5f);
    // --dump-graph prints what it renders.
    ASSERT_EQ(tessera("mosaic red.exr green.exr -o x.exr --dump-graph"), 0);
    EXPECT_NE(text("out.txt").find(R"("op":"text","params":{"text":"green.exr")"),
              std::string::npos)
        << text("out.txt");
    EXPECT_EQ(tessera("mosaic red.exr nothere.exr -o x.exr"), 1);
    EXPECT_NE(text("err.txt").find("nothere.exr"), std::string::npos);
}

}  // namespace
