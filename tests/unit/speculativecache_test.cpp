// The speculative cache of finished tile images.
#include <gtest/gtest.h>

#include "support/local_allocator.h"
#include "util/exceptions.h"

using namespace TESSERA;
using TESSERA::Private::CacheData;
using TESSERA::Private::CacheDataPtr;
using TESSERA::testing::hasPattern;
using TESSERA::testing::LocalAllocator;
using TESSERA::testing::writePattern;

namespace {

const UTIL::Rect kTile(0, 0, 64, 64);
constexpr int64_t kTileBytes = 64 * 64 * 16;

CacheDataPtr record(const std::string& cacheID, int x, float priority, float weight = 1.0f) {
    CacheDataPtr data(new CacheData);
    data->cacheID = cacheID;
    data->tileID = TileID(static_cast<int16_t>(x), 0, 64, 64);
    data->taskName = "Task";
    data->taskDescription = "a test task";
    data->priority = priority;
    data->weight = weight;
    return data;
}

// A finished, unlocked, cacheable tile image.
ImageBuffer tileImage(LocalAllocator& local, const CacheDataPtr& data, uint32_t seed) {
    ImageBuffer b = local.make(IMGLIB::CHANNELS_RGBA, kTile, "tile");
    {
        ImageBuffer_LockScoper lock(b);
        writePattern(b.getImage(), seed);
    }
    local.allocator->markCacheable(b, data);
    return b;
}

}  // namespace

TEST(SpeculativeCache, ReleasedTilesAreKeptAndHandedOutOnce) {
    LocalAllocator local;
    Private::SpeculativeCache& cache = local.allocator->speculativeCache();
    ImageBuffer b = tileImage(local, record("$id", 3, 1.0f), 42);
    b.setNull();  // fits under the budget: the cache keeps it
    EXPECT_EQ(cache.getEntryCount(), 1u);
    EXPECT_EQ(cache.getMemoryUsage(), kTileBytes);
    EXPECT_EQ(local.allocator->getMemUsage(), kTileBytes);

    EXPECT_TRUE(cache.lookup("$id", TileID(3, 0, 128, 128)).isNull());  // another grid
    EXPECT_TRUE(cache.lookup("$other", TileID(3, 0, 64, 64)).isNull());
    ImageBuffer hit = cache.lookup("$id", TileID(3, 0, 64, 64));
    ASSERT_FALSE(hit.isNull());
    EXPECT_TRUE(cache.lookup("$id", TileID(3, 0, 64, 64)).isNull());  // moved out
    EXPECT_EQ(cache.getHits(), 1u);
    EXPECT_EQ(cache.getMemoryUsage(), 0);
    {
        ImageBuffer_LockScoper lock(hit);
        EXPECT_TRUE(hasPattern(hit.getImage(), 42));
    }
    hit.setNull();  // offered again
    EXPECT_EQ(cache.getEntryCount(), 1u);

    auto contents = cache.getContents();
    ASSERT_EQ(contents->getName(), "ramCache");
    ASSERT_EQ(contents->getChildren().size(), 1u);
    const auto& rec = contents->getChildren()[0];
    EXPECT_EQ(rec->getName(), "cacheRecord");
    EXPECT_EQ(rec->getAttr("cacheID"), "$id");
    EXPECT_EQ(rec->getAttr("tileX"), "3");
    EXPECT_EQ(rec->getAttr("taskName"), "Task");
    EXPECT_EQ(rec->getAttr("size"), std::to_string(kTileBytes));

    cache.clear();
    EXPECT_EQ(cache.getEntryCount(), 0u);
    EXPECT_EQ(local.allocator->getMemUsage(), 0);
    cache.resetStatistics();
    EXPECT_EQ(cache.getHits(), 0u);
}

TEST(SpeculativeCache, DisabledCacheRefusesEverything) {
    LocalAllocator local;
    Private::SpeculativeCache& cache = local.allocator->speculativeCache();
    ImageBuffer kept = tileImage(local, record("$a", 0, 1.0f), 1);
    cache.setEnabled(false);
    EXPECT_FALSE(cache.offer(Private::ImageBufferAccess::impl(kept), 0, 1 << 30));
    // Marking does nothing while disabled: the image is destroyed on release.
    ImageBuffer b = tileImage(local, record("$b", 0, 1.0f), 2);
    EXPECT_TRUE(Private::ImageBufferAccess::impl(b)->getCacheData().is_null());
    b.setNull();
    kept.setNull();
    EXPECT_EQ(cache.getEntryCount(), 0u);
    EXPECT_EQ(local.allocator->getMemUsage(), 0);
    cache.setEnabled(true);
    EXPECT_TRUE(cache.lookup("$a", TileID(0, 0, 64, 64)).isNull());
}

TEST(SpeculativeCache, OffersOverTheBudgetDisplaceOnlyLowerEntries) {
    LocalAllocator local;
    Private::SpeculativeCache& cache = local.allocator->speculativeCache();
    // Two low entries (score 1 and 2) in the cache.
    tileImage(local, record("$low", 0, 1.0f), 1).setNull();
    tileImage(local, record("$low", 1, 1.0f, 2.0f), 2).setNull();
    ASSERT_EQ(cache.getEntryCount(), 2u);
    const int64_t usage = local.allocator->getMemUsage();

    ImageBuffer high = tileImage(local, record("$high", 0, 5.0f), 3);
    ImageBuffer::Impl* impl = Private::ImageBufferAccess::impl(high);
    // Free room: accepted whatever the score.
    EXPECT_TRUE(cache.offer(impl, usage, usage + 2 * kTileBytes + 1));
    // No room: accepted because lower entries add up to its size.
    EXPECT_TRUE(cache.offer(impl, usage, usage));
    // A newcomer that scores below everything cached is refused.
    ImageBuffer low = tileImage(local, record("$lower", 0, 0.5f), 4);
    EXPECT_FALSE(cache.offer(Private::ImageBufferAccess::impl(low), usage, usage));
    // Equal products are ordered by priority: the lowest entry (1 x 1) is
    // below (2 x 0.5) but not below (0.5 x 2).
    ImageBuffer above = tileImage(local, record("$above", 0, 2.0f, 0.5f), 5);
    EXPECT_TRUE(cache.offer(Private::ImageBufferAccess::impl(above), usage, usage));
    ImageBuffer below = tileImage(local, record("$below", 0, 0.5f, 2.0f), 7);
    EXPECT_FALSE(cache.offer(Private::ImageBufferAccess::impl(below), usage, usage));
    // A tile the cache already holds is not taken twice.
    ImageBuffer again = tileImage(local, record("$low", 0, 9.0f), 6);
    EXPECT_FALSE(cache.offer(Private::ImageBufferAccess::impl(again), 0, 1 << 30));
}

TEST(SpeculativeCache, ReleaseFreesTheLowestScoresFirst) {
    LocalAllocator local;
    Private::SpeculativeCache& cache = local.allocator->speculativeCache();
    tileImage(local, record("$c", 0, 3.0f), 1).setNull();
    tileImage(local, record("$a", 0, 1.0f), 2).setNull();
    tileImage(local, record("$b", 0, 2.0f), 3).setNull();
    EXPECT_EQ(cache.release(1), kTileBytes);
    EXPECT_TRUE(cache.lookup("$a", TileID(0, 0, 64, 64)).isNull());
    EXPECT_EQ(cache.getEntryCount(), 2u);
    EXPECT_EQ(local.allocator->getMemUsage(), 2 * kTileBytes);

    // A reservation over the budget takes memory from the cache before it
    // swaps anything: $b goes, $c stays.
    local.allocator->setMaxMemory(2 * kTileBytes + 1);
    ImageBuffer fresh = local.make(IMGLIB::CHANNELS_RGBA, kTile);
    ImageBuffer_LockScoper lock(fresh);
    EXPECT_EQ(local.allocator->getDiskUsage(), 0);
    EXPECT_EQ(cache.getEntryCount(), 1u);
    ImageBuffer c = cache.lookup("$c", TileID(0, 0, 64, 64));
    ASSERT_FALSE(c.isNull());
    ImageBuffer_LockScoper lockC(c);
    EXPECT_TRUE(hasPattern(c.getImage(), 1));
}
