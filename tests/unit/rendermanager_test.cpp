// Process-wide render settings, statistics and cancellation.
#include <sched.h>

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <limits>
#include <thread>

#include "rendermanager.h"
#include "rendersystem/core/rendercontroller.h"
#include "rendersystem/images/imageallocator.h"
#include "util/exceptions.h"

using namespace TESSERA;

namespace {

struct AlwaysAbort : RenderManager::CancelChecker {
    bool shouldAbort() override { return true; }
};

}  // namespace

TEST(RenderManager, TileSizeThreadsAndBudgets) {
    EXPECT_EQ(RenderManager::getGlobalTileWidth(), 256);
    EXPECT_EQ(RenderManager::getGlobalTileHeight(), 256);
    try {
        RenderManager::setGlobalTileSize(0, 256);
        FAIL();
    } catch (const UTIL::AssertException& e) {
        EXPECT_EQ(e.expression(), "xTileSize >0 && yTileSize > 0");
    }
    RenderManager::setGlobalTileSize(64, 32);
    EXPECT_EQ(RenderManager::getGlobalTileWidth(), 64);
    EXPECT_EQ(RenderManager::getGlobalTileHeight(), 32);
    RenderManager::setGlobalTileSize(256, 256);

    // Until set, one per CPU this process may use.
    cpu_set_t cpus;
    ASSERT_EQ(sched_getaffinity(0, sizeof cpus, &cpus), 0);
    EXPECT_EQ(RenderManager::getRenderThreads(), uint64_t(CPU_COUNT(&cpus)));
    RenderManager::setRenderThreads(0);
    EXPECT_EQ(RenderManager::getRenderThreads(), 1u);
    EXPECT_EQ(Private::RenderController::pool().size(), 2u);  // one spare thread
    // A count no machine could run is refused, and changes nothing.
    EXPECT_THROW(RenderManager::setRenderThreads(1000000), UTIL::ErrorException);
    EXPECT_EQ(RenderManager::getRenderThreads(), 1u);

    RenderManager::SetMaxImageMemory(1);
    EXPECT_EQ(RenderManager::GetMaxImageMemory(), 1u);
    EXPECT_EQ(Private::ImageAllocator::instance().getMaxMemory(), 1048576);
    RenderManager::SetMaxDiskUsage(3);
    EXPECT_EQ(RenderManager::GetMaxDiskUsage(), 3);
    RenderManager::SetMaxImageMemory(256);
    RenderManager::SetMaxDiskUsage(8192);
}

TEST(RenderManager, CancelCheckersArePerThread) {
    EXPECT_FALSE(RenderManager::CheckAbort());
    AlwaysAbort abort;
    RenderManager::SetCancelChecker(&abort);
    EXPECT_TRUE(RenderManager::CheckAbort());
    bool other = true;
    std::thread([&] { other = RenderManager::CheckAbort(); }).join();
    EXPECT_FALSE(other);
    RenderManager::SetCancelChecker(nullptr);
    EXPECT_FALSE(RenderManager::CheckAbort());
    RenderManager::CancelChecker plain;
    EXPECT_FALSE(plain.shouldAbort());
}

TEST(RenderManager, DebugLinesGoToTheLogOnlyWhenDebugging) {
    const std::string path = ::testing::TempDir() + "/render.log";
    RenderManager::setRenderLogFile(path);
    RenderManager::debugLine("hidden");
    RenderManager::debugStream() << "also hidden";
    RenderManager::setRenderDebug(true);
    RenderManager::debugLine("shown");
    RenderManager::setRenderDebug(false);
    std::ifstream in(path);
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(all, "shown\n");
    EXPECT_THROW(RenderManager::setRenderLogFile("/nonexistent/dir/log"), UTIL::ErrorException);
}

TEST(RenderManager, StatisticsAndSpeculativeCacheSwitch) {
    EXPECT_TRUE(RenderManager::getSpeculativeCachingEnable());
    RenderManager::setSpeculativeCachingEnable(false);
    EXPECT_FALSE(RenderManager::getSpeculativeCachingEnable());
    auto stats = RenderManager::getStatistics();
    ASSERT_EQ(stats->getChildren().size(), 3u);
    const auto& manager = stats->getChildren()[0];
    EXPECT_EQ(manager->getAttr("name"), "Render Manager");
    std::vector<std::string> names;
    for (const auto& e : manager->getChildren()) names.push_back(e->getAttr("name"));
    EXPECT_EQ(names, (std::vector<std::string>{"Render Threads", "Tile Width", "Tile Height",
                                               "Speculative Caching Enabled"}));
    EXPECT_EQ(manager->getChildren()[3]->getAttr("value"), "false");
    EXPECT_EQ(stats->getChildren()[1]->getAttr("name"), "Image Memory Management");
    EXPECT_EQ(stats->getChildren()[2]->getAttr("name"), "Speculative Cache");
    RenderManager::setSpeculativeCachingEnable(true);
    EXPECT_EQ(RenderManager::GetSpeculativeCacheContents()->getName(), "ramCache");

    ::testing::internal::CaptureStderr();
    RenderManager::printImageMemoryUsage();
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("Image allocator memory usage: "),
              std::string::npos);
}

TEST(RenderManager, HugeBudgetsSaturateInsteadOfWrapping) {
    RenderManager::SetMaxImageMemory(std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(RenderManager::GetMaxImageMemory(),
              uint64_t(std::numeric_limits<int64_t>::max()) >> 20);
    RenderManager::SetMaxDiskUsage(uint64_t(1) << 50);
    EXPECT_EQ(RenderManager::GetMaxDiskUsage(), std::numeric_limits<int64_t>::max() >> 20);
    RenderManager::SetMaxImageMemory(256);
    RenderManager::SetMaxDiskUsage(8192);
}

TEST(RenderManager, TheDebugStreamSurvivesANewLogFile) {
    const std::string dir = ::testing::TempDir();
    RenderManager::setRenderDebug(true);
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        std::ostream& log = RenderManager::debugStream();
        while (!stop) log << "a line from a render thread" << std::endl;
    });
    for (int i = 0; i < 50; ++i)
        RenderManager::setRenderLogFile(dir + "/log" + std::to_string(i % 2) + ".txt");
    stop = true;
    writer.join();
    RenderManager::setRenderDebug(false);
}
