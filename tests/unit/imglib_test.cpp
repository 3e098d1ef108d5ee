// IMGLIB core: channel masks, per-thread errors, pixel operators, raw dumps.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "imglib/rawdump.h"

using namespace IMGLIB;
namespace fs = std::filesystem;

namespace {

// An image record over owned storage, rows padded to 16 bytes as the
// allocator lays them out.
struct OwnedImage {
    OwnedImage(uint64_t channels, int64_t x1, int64_t y1, int64_t x2, int64_t y2) {
        image.channels = channels;
        image.x1 = x1;
        image.y1 = y1;
        image.x2 = x2;
        image.y2 = y2;
        image.rowBytes = ((x2 - x1) * GetPixelBytes(channels) + 15) & ~int64_t(15);
        storage.assign(static_cast<size_t>(image.rowBytes * (y2 - y1) / 4 + 4), -7.0f);
        image.pixelPtr = storage.data();
    }
    std::vector<float> storage;
    Image image;
};

std::vector<float> rgba(const Image& image, int64_t x, int64_t y) {
    float v[4] = {-1, -1, -1, -1};
    GetPixel(&image, x, y, v);
    return {v[0], v[1], v[2], v[3]};
}

class TempDir {
public:
    TempDir() : path(fs::temp_directory_path() / ("imglib_test_" + std::to_string(::getpid()))) {
        fs::create_directories(path);
    }
    ~TempDir() { fs::remove_all(path); }
    fs::path path;
};

}  // namespace

// Names take free bits once and keep them; threads naming the same
// channels at once agree on their bits.
TEST(ChannelNames, NamesKeepTheirBitsAcrossThreads) {
    EXPECT_EQ(GetChannelForName("R"), CHANNEL_R);
    EXPECT_EQ(GetChannelForName("Z"), CHANNEL_Z);
    EXPECT_EQ(FindChannel("registry.never"), 0u);
    const std::vector<std::string> names = {"registry.R", "registry.G", "registry.u", "mask"};
    std::vector<std::vector<uint64_t>> seen(4);
    std::vector<std::thread> threads;
    for (auto& bits : seen)
        threads.emplace_back([&bits, &names] {
            for (const std::string& name : names) bits.push_back(GetChannelForName(name));
        });
    for (auto& t : threads) t.join();
    uint64_t all = 0;
    for (uint64_t bit : seen[0]) {
        EXPECT_EQ(GetChannelCount(bit), 1);
        EXPECT_GE(bit, uint64_t(1) << NUM_FIXED_CHANNELS);
        all |= bit;
    }
    EXPECT_EQ(GetChannelCount(all), 4);
    for (const auto& bits : seen) EXPECT_EQ(bits, seen[0]);
    EXPECT_EQ(GetChannelName(seen[0][2]), "registry.u");
    EXPECT_TRUE(IsChannelMaskValid(all | CHANNELS_RGBA));
    EXPECT_EQ(GetChannelNames(CHANNEL_A | seen[0][3]), (std::vector<std::string>{"A", "mask"}));
    EXPECT_EQ(GetChannelMaskName(CHANNELS_RGB | seen[0][0] | seen[0][3]), "RGB,registry.R,mask");
    EXPECT_EQ(GetChannelMaskName(seen[0][3]), "mask");
}

// A process that names more channels than there are bits gets an error
// naming the channel that found none, never a bit shared or dropped.
TEST(ChannelNames, RunningOutOfBitsNamesTheChannel) {
    // The child runs afresh: render threads of other tests may hold locks.
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            int named = 0;
            for (;; ++named) {
                const std::string name = "many." + std::to_string(named);
                if (!GetChannelForName(name)) {
                    const bool says = GetError() == ERROR_TOO_MANY_CHANNELS &&
                                      GetErrorMessage().find("'" + name + "'") != std::string::npos;
                    std::exit(says && IsChannelMaskValid(~uint64_t(0)) ? 0 : 1);
                }
            }
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(ChannelMask, ValidationNamesAndSizes) {
    EXPECT_EQ(ValidateChannelMask(CHANNELS_RGBA | (uint64_t(1) << 40)), CHANNELS_RGBA);
    EXPECT_TRUE(IsChannelMaskValid(CHANNELS_RGB));
    EXPECT_TRUE(IsChannelMaskValid(0));
    EXPECT_FALSE(IsChannelMaskValid(uint64_t(1) << 63));
    EXPECT_EQ(GetChannelMaskName(CHANNELS_RGBA), "RGBA");
    EXPECT_EQ(GetChannelMaskName(CHANNELS_RGB), "RGB");
    EXPECT_EQ(GetChannelMaskName(CHANNEL_A | CHANNEL_Z), "AZ");
    EXPECT_EQ(GetChannelMaskName(CHANNEL_R | CHANNEL_U | CHANNEL_V), "RUV");
    EXPECT_EQ(GetChannelMaskName(0), "none");
    EXPECT_EQ(GetPixelBytes(CHANNELS_RGBA), 16);
    EXPECT_EQ(GetPixelBytes(CHANNEL_A | CHANNEL_Z | CHANNEL_U), 12);
    EXPECT_EQ(GetChannelIndex(CHANNEL_G | CHANNEL_A, CHANNEL_A), 1);
    EXPECT_EQ(GetChannelIndex(CHANNEL_G | CHANNEL_A, CHANNEL_R), -1);

    ClearError();
    EXPECT_EQ(GetPixelBytes(uint64_t(1) << 50), 0);
    EXPECT_EQ(GetError(), ERROR_INVALID_CHANNEL_MASK);
    EXPECT_NE(GetErrorMessage().find("Invalid channel mask"), std::string::npos);
}

TEST(ImglibError, IsPerThreadAndClearedByCheck) {
    SetError(ERROR_FILE_READ, "boom");
    int otherThread = -1;
    std::thread([&] { otherThread = GetError(); }).join();
    EXPECT_EQ(otherThread, ERROR_NONE);
    EXPECT_EQ(GetErrorMessage(), "boom");
    EXPECT_EQ(CheckError(), ERROR_FILE_READ);
    EXPECT_EQ(GetError(), ERROR_NONE);
    EXPECT_EQ(GetErrorMessage(), "");
}

TEST(ImglibPixels, GetAndSetMapRGBAOntoTheImagesChannels) {
    OwnedImage img(CHANNEL_G | CHANNEL_A, 10, 20, 14, 23);
    const float value[4] = {1, 2, 3, 4};
    ASSERT_EQ(SetPixel(&img.image, 13, 22, value), ERROR_NONE);
    float out[4] = {0, 0, 0, 0};
    ASSERT_EQ(GetPixel(&img.image, 13, 22, out), ERROR_NONE);
    EXPECT_EQ(std::vector<float>(out, out + 4), (std::vector<float>{0, 2, 0, 4}));
    // Stored interleaved: G then A.
    const float* p = GetPixelAddress(&img.image, 13, 22, 8);
    EXPECT_EQ(p[0], 2.0f);
    EXPECT_EQ(p[1], 4.0f);
    EXPECT_EQ(GetPixel(&img.image, 14, 22, out), ERROR_OUT_OF_BOUNDS);
    EXPECT_EQ(SetPixel(&img.image, 13, 19, value), ERROR_OUT_OF_BOUNDS);
    EXPECT_EQ(GetPixel(nullptr, 0, 0, out), ERROR_NULL_IMAGE);
}

TEST(ImglibPixels, FillClearCopyAndCopyInto) {
    OwnedImage dst(CHANNELS_RGBA | CHANNEL_Z, 0, 0, 4, 4);
    const float color[4] = {0.25f, 0.5f, 0.75f, 1.0f};
    ASSERT_EQ(Fill(&dst.image, color), ERROR_NONE);
    EXPECT_EQ(rgba(dst.image, 3, 3), (std::vector<float>{0.25f, 0.5f, 0.75f, 1.0f}));
    EXPECT_EQ(GetPixelAddress(&dst.image, 0, 0, 20)[4], 0.0f);  // Z is zeroed

    // The source lacks B, A and Z: those become 0 where it overlaps.
    OwnedImage src(CHANNEL_R | CHANNEL_G, 2, 1, 6, 3);
    for (int64_t y = 1; y < 3; ++y)
        for (int64_t x = 2; x < 6; ++x) {
            const float v[4] = {float(x), float(y), 9, 9};
            SetPixel(&src.image, x, y, v);
        }
    ASSERT_EQ(CopyInto(&dst.image, &src.image), ERROR_NONE);
    EXPECT_EQ(rgba(dst.image, 3, 2), (std::vector<float>{3, 2, 0, 0}));
    EXPECT_EQ(rgba(dst.image, 1, 2), (std::vector<float>{0.25f, 0.5f, 0.75f, 1.0f}));

    ASSERT_EQ(Copy(&dst.image, &src.image), ERROR_NONE);
    EXPECT_EQ(rgba(dst.image, 2, 1), (std::vector<float>{2, 1, 0, 0}));
    EXPECT_EQ(rgba(dst.image, 1, 1), (std::vector<float>{0, 0, 0, 0}));  // outside src
    EXPECT_EQ(rgba(dst.image, 3, 3), (std::vector<float>{0, 0, 0, 0}));

    ASSERT_EQ(Fill(&dst.image, color), ERROR_NONE);
    ASSERT_EQ(Clear(&dst.image), ERROR_NONE);
    EXPECT_EQ(rgba(dst.image, 0, 0), (std::vector<float>{0, 0, 0, 0}));
}

// A destination larger than the caches is written with streaming stores:
// the same floats land, at any alignment, and nothing around them changes.
TEST(ImglibPixels, CopyIntoAFrameLargerThanTheCaches) {
    OwnedImage frame(CHANNELS_RGB, 0, 0, 3001, 1000);  // 36 MB, rows of 12-byte pixels
    ASSERT_GE(frame.storage.size() * 4, size_t(32) << 20);
    OwnedImage tile(CHANNELS_RGB, 37, 11, 37 + 301, 11 + 203);
    for (int64_t y = tile.image.y1; y < tile.image.y2; ++y)
        for (int64_t x = tile.image.x1; x < tile.image.x2; ++x) {
            const float v[4] = {float(x), float(y), float(x * y), 0};
            SetPixel(&tile.image, x, y, v);
        }
    std::vector<float> want = frame.storage;
    for (int64_t y = tile.image.y1; y < tile.image.y2; ++y)
        std::memcpy(&want[size_t(y * frame.image.rowBytes / 4 + tile.image.x1 * 3)],
                    tile.image.row(y), size_t(tile.image.width() * 12));
    ASSERT_EQ(CopyInto(&frame.image, &tile.image), ERROR_NONE);
    EXPECT_TRUE(frame.storage == want);
}

TEST(ImglibPixels, SubImagesShareThePixels) {
    OwnedImage img(CHANNELS_RGB, -4, -4, 4, 4);
    Image sub;
    ASSERT_EQ(GetSubImage(&img.image, -1, 0, 2, 3, &sub), ERROR_NONE);
    EXPECT_EQ(sub.rowBytes, img.image.rowBytes);
    EXPECT_EQ(sub.width(), 3);
    const float one[4] = {1, 1, 1, 1};
    ASSERT_EQ(Fill(&sub, one), ERROR_NONE);
    EXPECT_EQ(rgba(img.image, -1, 0)[0], 1.0f);
    EXPECT_EQ(rgba(img.image, 1, 2)[2], 1.0f);
    EXPECT_EQ(rgba(img.image, 2, 2)[0], -7.0f);  // untouched
    EXPECT_EQ(rgba(img.image, -2, 2)[0], -7.0f);
    EXPECT_EQ(GetSubImage(&img.image, -5, 0, 2, 3, &sub), ERROR_OUT_OF_BOUNDS);
}

TEST(RawDump, RestoresRowsBitForBitOwnerOnly) {
    TempDir dir;
    OwnedImage img(CHANNELS_RGBA, 3, -2, 40, 9);
    uint32_t bits = 0x7FC00001;  // includes NaN payloads and denormals
    for (float& f : img.storage) {
        std::memcpy(&f, &bits, 4);
        bits = bits * 1664525u + 1013904223u;
    }
    const std::string path = (dir.path / "dump").string();
    ASSERT_EQ(WriteRAW(path, &img.image), ERROR_NONE) << GetErrorMessage();
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    OwnedImage back(CHANNELS_RGBA, 3, -2, 40, 9);
    ASSERT_EQ(ReadRAW(&back.image, path), ERROR_NONE) << GetErrorMessage();
    const size_t rowBytes = 37 * 16;
    for (int64_t y = -2; y < 9; ++y)
        EXPECT_EQ(std::memcmp(img.image.row(y), back.image.row(y), rowBytes), 0) << "row " << y;

    // Exclusive creation: an existing file or a link is never written
    // through; the path is reported as taken, so a caller may pick another.
    EXPECT_EQ(WriteRAW(path, &img.image), ERROR_FILE_EXISTS);
    const std::string link = (dir.path / "link").string();
    ASSERT_EQ(::symlink((dir.path / "target").c_str(), link.c_str()), 0);
    EXPECT_EQ(WriteRAW(link, &img.image), ERROR_FILE_EXISTS);
    EXPECT_FALSE(fs::exists(dir.path / "target"));
    EXPECT_EQ(WriteRAW((dir.path / "missing" / "x").string(), &img.image), ERROR_FILE_OPEN);
}

TEST(RawDump, RejectsTruncatedForeignDamagedAndMismatchedFiles) {
    TempDir dir;
    OwnedImage img(CHANNELS_RGB, 0, 0, 16, 16);
    const std::string path = (dir.path / "dump").string();
    ASSERT_EQ(WriteRAW(path, &img.image), ERROR_NONE);
    const auto size = fs::file_size(path);

    OwnedImage other(CHANNELS_RGB, 0, 0, 16, 15);
    EXPECT_EQ(ReadRAW(&other.image, path), ERROR_FILE_MISMATCH);
    EXPECT_NE(GetErrorMessage().find(path), std::string::npos);

    OwnedImage back(CHANNELS_RGB, 0, 0, 16, 16);
    const std::string damaged = (dir.path / "damaged").string();
    fs::copy_file(path, damaged);
    {
        std::fstream f(damaged, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(static_cast<std::streamoff>(size - 5));
        f.put('\x42');
    }
    EXPECT_EQ(ReadRAW(&back.image, damaged), ERROR_FILE_FORMAT);
    EXPECT_NE(GetErrorMessage().find("damaged"), std::string::npos);

    fs::resize_file(path, size - 1);
    EXPECT_EQ(ReadRAW(&back.image, path), ERROR_FILE_FORMAT);

    const std::string foreign = (dir.path / "foreign").string();
    std::ofstream(foreign) << std::string(size, 'x');
    EXPECT_EQ(ReadRAW(&back.image, foreign), ERROR_FILE_FORMAT);
    EXPECT_EQ(ReadRAW(&back.image, (dir.path / "none").string()), ERROR_FILE_OPEN);
}

TEST(RawDump, AnImageWithoutPixelsDumpsItsHeaderWithAWarning) {
    TempDir dir;
    Image empty;
    empty.channels = CHANNELS_RGBA;
    empty.x1 = 5;
    empty.x2 = 5;
    empty.y2 = 10;
    const std::string path = (dir.path / "empty").string();
    EXPECT_EQ(WriteRAW(path, &empty), WARNING_EMPTY_IMAGE);
    EXPECT_EQ(ReadRAW(&empty, path), WARNING_EMPTY_IMAGE);
}
