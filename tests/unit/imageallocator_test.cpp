// The image allocator: budgets, swapping, overrun and statistics.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>

#include "imglib/error.h"
#include "rendermanager.h"
#include "support/local_allocator.h"
#include "util/exceptions.h"

using namespace TESSERA;
using TESSERA::testing::hasPattern;
using TESSERA::testing::LocalAllocator;
using TESSERA::testing::writePattern;
namespace fs = std::filesystem;

namespace {

// 64 x 64 RGBA: 64 KiB.
const UTIL::Rect kTile(0, 0, 64, 64);
constexpr int64_t kTileBytes = 64 * 64 * 16;

ImageBuffer patterned(LocalAllocator& local, uint32_t seed, const std::string& comment = "img") {
    ImageBuffer b = local.make(IMGLIB::CHANNELS_RGBA, kTile, comment);
    ImageBuffer_LockScoper lock(b);
    writePattern(b.getImage(), seed);
    return b;
}

std::string entryValue(const Orrery3::XmlIO::v1::ElementPtr& root, const std::string& block,
                       const std::string& entry) {
    for (const auto& b : root->getChildren()) {
        if (b->getAttr("name") != block) continue;
        for (const auto& e : b->getChildren())
            if (e->getAttr("name") == entry) return e->getAttr("value");
    }
    return "<missing>";
}

}  // namespace

TEST(ImageAllocator, SwapsOldestUnlockedImagesAndRestoresThemBitForBit) {
    LocalAllocator local;
    local.allocator->setMaxMemory(3 * kTileBytes);
    std::vector<ImageBuffer> images;
    for (uint32_t i = 0; i < 3; ++i) images.push_back(patterned(local, i));
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);

    // A fourth image pushes usage over the budget: the two oldest go to disk
    // (usage must end strictly below the budget).
    images.push_back(patterned(local, 3));
    EXPECT_EQ(local.allocator->getDiskUsage(), 2 * kTileBytes);
    EXPECT_EQ(local.allocator->getMemUsage(), 2 * kTileBytes);
    // The peak is taken once the reservation is resolved.
    EXPECT_EQ(local.allocator->getPeakMemUsage(), 3 * kTileBytes);
    const auto files = local.swapFiles();
    ASSERT_EQ(files.size(), 2u);
    const std::regex name("marlin_cacheFile[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}");
    for (const auto& f : files) {
        EXPECT_TRUE(std::regex_match(f.filename().string(), name)) << f;
        struct stat st {};
        ASSERT_EQ(::lstat(f.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
    }

    // Every image reads back exactly; read-back deletes the swap files.
    for (uint32_t i = 0; i < 4; ++i) {
        ImageBuffer_LockScoper lock(images[i]);
        EXPECT_TRUE(hasPattern(images[i].getImage(), i)) << "image " << i;
    }
    EXPECT_EQ(local.allocator->getDiskUsage(), 2 * kTileBytes);  // swapped again meanwhile
    EXPECT_EQ(local.swapFiles().size(), 2u);
    images.clear();
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);
    EXPECT_EQ(local.allocator->getMemUsage(), 0);
    EXPECT_TRUE(local.swapFiles().empty());
    EXPECT_EQ(local.allocator->getPeakDiskUsage(), 3 * kTileBytes);
}

TEST(ImageAllocator, BudgetTestIsStrictToEnterAndInclusiveToContinue) {
    const int64_t small = 16;  // a 1x1 RGBA image
    // Two unlocked images, then a small one locked under `budget`: returns
    // the bytes that went to disk.
    auto swappedUnder = [&](int64_t budgetOverOneImage) {
        LocalAllocator local;
        ImageBuffer a = patterned(local, 1), b = patterned(local, 2);
        local.allocator->setMaxMemory(kTileBytes + budgetOverOneImage);
        ImageBuffer c = local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 1, 1));
        ImageBuffer_LockScoper lockC(c);
        const int64_t swapped = local.allocator->getDiskUsage();
        ImageBuffer_LockScoper lockA(a);  // a, the oldest, comes back intact
        EXPECT_TRUE(hasPattern(a.getImage(), 1));
        return swapped;
    };
    // One eviction leaves usage below the budget: stop there.
    EXPECT_EQ(swappedUnder(small + 1), kTileBytes);
    // One eviction leaves usage equal to the budget: go on.
    EXPECT_EQ(swappedUnder(small), 2 * kTileBytes);
    // A budget exactly at the current usage: one more image enters eviction.
    EXPECT_EQ(swappedUnder(kTileBytes), kTileBytes);
}

TEST(ImageAllocator, FileInImagesAreCountedWhereverTheTagStands) {
    LocalAllocator local;
    ImageBuffer plain = local.make(IMGLIB::CHANNELS_RGBA, kTile, "tile");
    ImageBuffer tagged = local.make(IMGLIB::CHANNELS_RGBA, kTile, "read of FILEIN.plate");
    ImageBuffer_LockScoper l1(plain), l2(tagged);
    EXPECT_EQ(local.allocator->getFileInMemUsage(), kTileBytes);
    EXPECT_EQ(local.allocator->getPeakFileInMemUsage(), kTileBytes);
    EXPECT_EQ(local.allocator->getMemUsage(), 2 * kTileBytes);
}

TEST(ImageAllocator, UnwritableSwapDirectoryFailsTheSaveAndLosesNoPixels) {
    LocalAllocator local("/nonexistent/tessera/swap");
    ImageBuffer a = patterned(local, 7);
    local.allocator->setMaxMemory(kTileBytes);
    ImageBuffer b = local.make(IMGLIB::CHANNELS_RGBA, kTile);
    ::testing::internal::CaptureStderr();
    try {
        b.lock();
        FAIL() << "no exception";
    } catch (const UTIL::ErrorException& e) {
        // The image, the path and the system's reason.
        const std::string message = e.what();
        EXPECT_EQ(message.rfind("Saving failed: image 'img': WriteRAW: cannot create "
                                "/nonexistent/tessera/swap/marlin_cacheFile",
                                0),
                  0u)
            << message;
        EXPECT_NE(message.find("No such file or directory"), std::string::npos) << message;
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "ImageAllocator::SaveToDisk failed\n");
    EXPECT_FALSE(Private::ImageAllocator::overran());
    // The failed reservation was given back, and a kept its pixels.
    EXPECT_EQ(local.allocator->getMemUsage(), kTileBytes);
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);
    ImageBuffer_LockScoper lock(a);
    EXPECT_TRUE(hasPattern(a.getImage(), 7));
}

TEST(ImageAllocator, DamagedSwapFileIsDetectedNotTrusted) {
    LocalAllocator local;
    ImageBuffer a = patterned(local, 3);
    local.allocator->setMaxMemory(kTileBytes + 1);
    ImageBuffer b = patterned(local, 4);  // swaps a out
    const auto files = local.swapFiles();
    ASSERT_EQ(files.size(), 1u);
    fs::resize_file(files[0], fs::file_size(files[0]) - 100);
    b.setNull();

    // Locking it fails, naming the image; the useless file and its
    // accounting go at once.
    ::testing::internal::CaptureStderr();
    try {
        a.lock();
        FAIL() << "no exception";
    } catch (const UTIL::ErrorException& e) {
        EXPECT_NE(std::string(e.what()).find("cannot restore image 'img' from its swap file"),
                  std::string::npos)
            << e.what();
    }
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(IMGLIB::GetError(), IMGLIB::ERROR_FILE_FORMAT);
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);
    EXPECT_TRUE(local.swapFiles().empty());
    // What it holds now is never plausible garbage.
    ImageBuffer_LockScoper lock(a);
    EXPECT_TRUE(std::isnan(a.getImage()->row(0)[0]));
    IMGLIB::ClearError();
}

TEST(ImageAllocator, ThreadsSharingATightBudgetKeepEveryPixel) {
    LocalAllocator local;
    local.allocator->setMaxMemory(6 * kTileBytes);
    constexpr int kThreads = 4, kImages = 8, kRounds = 3;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::vector<ImageBuffer> mine;
            for (int i = 0; i < kImages; ++i)
                mine.push_back(patterned(local, static_cast<uint32_t>(t * 100 + i)));
            for (int round = 0; round < kRounds; ++round)
                for (int i = 0; i < kImages; ++i) {
                    ImageBuffer_LockScoper lock(mine[i]);
                    if (!hasPattern(mine[i].getImage(), static_cast<uint32_t>(t * 100 + i)))
                        ++failures;
                }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(local.allocator->getPeakDiskUsage(), 0);  // swapping really happened
    EXPECT_EQ(local.allocator->getMemUsage(), 0);
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);
    EXPECT_TRUE(local.swapFiles().empty());
}

TEST(ImageAllocator, StatisticsReportSwapsAndResetKeepsPeakDisk) {
    LocalAllocator local;
    local.allocator->setMaxMemory(kTileBytes + 1);
    ImageBuffer a = patterned(local, 1);
    ImageBuffer b = patterned(local, 2);  // a goes to disk
    { ImageBuffer_LockScoper lock(a); }   // and comes back (b goes)
    auto root = Orrery3::XmlIO::v1::Element::create("statistics");
    local.allocator->addStatistics(*root, 2);
    EXPECT_EQ(entryValue(root, "Image Memory Management", "Tile Swap Count (to disk)"), "2");
    EXPECT_EQ(entryValue(root, "Image Memory Management", "Tile Swap Count (from disk)"), "1");
    EXPECT_EQ(entryValue(root, "Image Memory Management", "Peak Memory Usage"),
              std::to_string(kTileBytes));
    EXPECT_EQ(entryValue(root, "Image Memory Management", "Max Memory Allowed"),
              std::to_string(kTileBytes + 1));
    EXPECT_EQ(entryValue(root, "Speculative Cache", "Memory Usage"), "0");
    for (const char* entry :
         {"Peak Memory Usage (FileIn)", "Peak Disk Usage", "Tile Swap Time (to disk)",
          "Tile Swap Time (from disk)", "Tile Swap Time (total)"})
        EXPECT_NE(entryValue(root, "Image Memory Management", entry), "<missing>") << entry;

    local.allocator->resetStatistics();
    EXPECT_EQ(local.allocator->getPeakMemUsage(), 0);
    // b was saved before a was read back: both were on disk at once. Kept.
    EXPECT_EQ(local.allocator->getPeakDiskUsage(), 2 * kTileBytes);

    ::testing::internal::CaptureStderr();
    local.allocator->printMemoryUsage(std::cerr);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "Image allocator memory usage: " + std::to_string(kTileBytes) +
                  "\nImage allocator max memory usage: " + std::to_string(kTileBytes + 1) +
                  "\nSpeculative cache memory usage: 0\n");
}

// The overran state is permanent for the process, so it is tested in a child.
TEST(ImageAllocatorDeathTest, OverrunIsPermanentButReleasingNeverThrows) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            LocalAllocator local;
            local.allocator->setMaxMemory(kTileBytes);
            ImageBuffer a = local.make(IMGLIB::CHANNELS_RGBA, kTile, "held");
            ImageBuffer_LockScoper lockA(a);
            ImageBuffer b = local.make(IMGLIB::CHANNELS_RGBA, kTile);
            bool ok = false;
            try {
                b.lock();
            } catch (const UTIL::OutOfMemoryException& e) {
                ok = std::string(e.what()) == "ImageAllocator overran available memory.";
            }
            ok = ok && Private::ImageAllocator::overran();
            // Everything after that reports the overrun...
            try {
                local.make(IMGLIB::CHANNELS_RGBA, kTile);
                ok = false;
            } catch (const UTIL::OutOfMemoryException&) {
            }
            try {
                a.getImage();
                ok = false;
            } catch (const UTIL::OutOfMemoryException&) {
            }
            // ... but handles and scopers still let go without ending the process.
            b.setNull();
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0),
        "ImageAllocator: \n   mem usage: 131072\n   max mem usage: 65536\n   disk usage: 0\n"
        "   max disk usage: 8589934592\n   num unlocked images: 0\n   num locked images: 1\n"
        "      Buf: 0x[0-9a-f]+ lockCount: 1 comment: held\n");
}

TEST(ImageAllocatorDeathTest, ReachingTheDiskBudgetOverruns) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            LocalAllocator local;
            local.allocator->setMaxMemory(kTileBytes);
            local.allocator->setMaxDiskUsage(0);
            ImageBuffer a = patterned(local, 1);
            try {
                patterned(local, 2);
            } catch (const UTIL::OutOfMemoryException&) {
                std::exit(local.allocator->getDiskUsage() == 0 ? 0 : 2);
            }
            std::exit(1);
        },
        ::testing::ExitedWithCode(0), "num unlocked images: 1");
}

TEST(ImageAllocator, FreedBlocksKeptForReuseCountAgainstTheBudget) {
    LocalAllocator local;
    local.allocator->setMaxMemory(8 * kTileBytes);
    auto resident = [&] {
        return local.allocator->getMemUsage() + local.allocator->getPooledBytes();
    };
    {
        std::vector<ImageBuffer> freed;
        for (uint32_t i = 0; i < 2; ++i) freed.push_back(patterned(local, i));
    }
    EXPECT_EQ(local.allocator->getPooledBytes(), 2 * kTileBytes);  // kept, a quarter at most
    // Images of another size cannot take those blocks: the pool gives way
    // before the budget is crossed.
    std::vector<ImageBuffer> images;
    for (int i = 0; i < 15; ++i) {
        images.push_back(local.make(IMGLIB::CHANNELS_RGBA, UTIL::Rect(0, 0, 64, 32)));
        ImageBuffer_LockScoper lock(images.back());
        EXPECT_LE(resident(), 8 * kTileBytes) << i;
    }
    EXPECT_EQ(local.allocator->getPooledBytes(), 0);
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);
}

// Full, the pool lets the blocks freed longest ago go (a size no longer
// made would hold its place for good), and a block serves images of nearly
// its size (an edge tile a pixel narrower).
TEST(ImageAllocator, ThePoolKeepsTheBlocksFreedLastForImagesOfNearlyTheirSize) {
    LocalAllocator local;
    local.allocator->setMaxMemory(8 * kTileBytes);  // a pool of two tiles
    auto made = [&](const UTIL::Rect& rect) {
        ImageBuffer image = local.make(IMGLIB::CHANNELS_RGBA, rect);
        ImageBuffer_LockScoper lock(image);
        return image;
    };
    const UTIL::Rect half(0, 0, 64, 32), narrower(0, 0, 63, 64);
    made(kTile);
    {
        // Three halves freed after the tile: its block, the oldest, goes.
        const ImageBuffer a = made(half), b = made(half), c = made(half);
    }
    EXPECT_EQ(local.allocator->getPooledBytes(), 3 * kTileBytes / 2);
    made(kTile);  // a new block, freed: the oldest half goes
    EXPECT_EQ(local.allocator->getPooledBytes(), 2 * kTileBytes);
    const ImageBuffer edge = made(narrower);  // takes the tile's block
    EXPECT_EQ(local.allocator->getPooledBytes(), kTileBytes);
}
