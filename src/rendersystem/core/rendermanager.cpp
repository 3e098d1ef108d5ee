#include "rendermanager.h"

#include <atomic>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <streambuf>

#include "private/statistics.h"
#include "rendersystem/core/rendercontroller.h"
#include "rendersystem/core/rendertask_imp.h"
#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/speculativecache.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendermanager")

namespace TESSERA {
namespace {

using Private::ImageAllocator;

std::atomic<int64_t> s_tileWidth{256};
std::atomic<int64_t> s_tileHeight{256};
std::atomic<bool> s_renderDebug{false};

// The render log: standard error or a file. Guarded by s_logMutex.
std::mutex s_logMutex;
std::unique_ptr<std::ofstream> s_logFile;
std::ostream* s_log = &std::cerr;

std::ostream& nullStream() {
    static std::ostream discard(nullptr);
    return discard;
}

// What debugStream() hands out: every write goes to the current log under
// s_logMutex, so setRenderLogFile may replace (and close) the file while
// another thread holds the stream.
class LogBuffer : public std::streambuf {
protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        const char ch = traits_type::to_char_type(c);
        std::lock_guard<std::mutex> lock(s_logMutex);
        s_log->put(ch);
        return c;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        std::lock_guard<std::mutex> lock(s_logMutex);
        s_log->write(text, count);
        return count;
    }
    int sync() override {
        std::lock_guard<std::mutex> lock(s_logMutex);
        s_log->flush();
        return 0;
    }
};

std::ostream& logStream() {
    static LogBuffer* buffer = new LogBuffer;  // outlives every caller
    static std::ostream* stream = new std::ostream(buffer);
    return *stream;
}

// Megabytes as bytes, saturating instead of overflowing.
int64_t megabytesToBytes(uint64_t megabytes) {
    constexpr uint64_t kMaxMegabytes = uint64_t(std::numeric_limits<int64_t>::max()) >> 20;
    return megabytes > kMaxMegabytes ? std::numeric_limits<int64_t>::max()
                                     : static_cast<int64_t>(megabytes << 20);
}

// Each thread's own: no lock, so CheckAbort costs a load.
thread_local RenderManager::CancelChecker* t_cancelChecker = nullptr;

Private::RenderController& controller(RenderType type) {
    return Private::RenderController::get(type);
}

constexpr int64_t kMegabyte = int64_t(1) << 20;

}  // namespace

UTIL::TaskProfiler RenderManager::s_renderSystemProfiler;

RenderManager::CancelChecker::~CancelChecker() = default;
bool RenderManager::CancelChecker::shouldAbort() {
    return false;
}

void RenderManager::Render(const std::vector<RenderDescription>& outputs,
                           const RenderObserverPtr& observer,
                           const OutputTilePrioritizerPtr& prioritizer, bool wait,
                           RenderType type) {
    controller(type).render(outputs, observer, prioritizer, wait, false);
}

void RenderManager::RenderAnalysis(const std::vector<RenderDescription>& outputs,
                                   const RenderObserverPtr& observer,
                                   const OutputTilePrioritizerPtr& prioritizer, bool wait,
                                   RenderType type) {
    controller(type).render(outputs, observer, prioritizer, wait, true);
}

void RenderManager::reprioritize(const OutputTilePrioritizerPtr& prioritizer, RenderType type) {
    controller(type).reprioritize(prioritizer);
}

void RenderManager::cancel(RenderType type, bool wait) {
    controller(type).cancel(wait);
}
void RenderManager::finishRender(RenderType type) {
    controller(type).finishRender();
}
bool RenderManager::isRenderInProgress(RenderType type) {
    return controller(type).isRenderInProgress();
}
void RenderManager::startAnalysis(RenderType type) {
    controller(type).startAnalysis();
}
bool RenderManager::submitAnalysisJob(RenderType type, const Util::RcPtr<Util::Job>& job) {
    return controller(type).submitAnalysisJob(job);
}
bool RenderManager::isAnalysisInProgress(RenderType type) {
    return controller(type).isAnalysisInProgress();
}
void RenderManager::endAnalysis(RenderType type) {
    controller(type).endAnalysis();
}

void RenderManager::setGlobalTileSize(int64_t xTileSize, int64_t yTileSize) {
    // Tiles of a running render keep the grid they were made with.
    finishRender(RENDERTYPE_VIEWER);
    finishRender(RENDERTYPE_BATCH);
    UTIL_ASSERT_TEXT(xTileSize > 0 && yTileSize > 0, "xTileSize >0 && yTileSize > 0");
    constexpr int64_t kMaxTileSize = int64_t(1) << 30;
    if (xTileSize > kMaxTileSize || yTileSize > kMaxTileSize)
        throw UTIL::ErrorException("setGlobalTileSize: " + std::to_string(xTileSize) + " x " +
                                   std::to_string(yTileSize) + " is too large (at most " +
                                   std::to_string(kMaxTileSize) + " pixels a side)");
    s_tileWidth.store(xTileSize);
    s_tileHeight.store(yTileSize);
}

int64_t RenderManager::getGlobalTileWidth() {
    return s_tileWidth.load();
}
int64_t RenderManager::getGlobalTileHeight() {
    return s_tileHeight.load();
}

void RenderManager::setRenderDebug(bool debug) {
    s_renderDebug.store(debug);
}
bool RenderManager::getRenderDebug() {
    return s_renderDebug.load();
}

void RenderManager::setRenderLogFile(const std::string& path) {
    auto file = std::make_unique<std::ofstream>(path, std::ios::out | std::ios::trunc);
    if (!*file) throw UTIL::ErrorException("setRenderLogFile: cannot open '" + path + "'");
    std::lock_guard<std::mutex> lock(s_logMutex);
    s_logFile = std::move(file);
    s_log = s_logFile.get();
}

std::ostream& RenderManager::debugStream() {
    return s_renderDebug.load() ? logStream() : nullStream();
}

void RenderManager::debugLine(const std::string& line) {
    if (!s_renderDebug.load()) return;
    std::lock_guard<std::mutex> lock(s_logMutex);
    *s_log << line << std::endl;
}

void RenderManager::setRenderThreads(uint64_t n) {
    Private::RenderController::setRenderThreads(n);
}
uint64_t RenderManager::getRenderThreads() {
    return Private::RenderController::getRenderThreads();
}

void RenderManager::setSpeculativeCachingEnable(bool enable) {
    ImageAllocator::instance().speculativeCache().setEnabled(enable);
}

bool RenderManager::getSpeculativeCachingEnable() {
    return ImageAllocator::instance().speculativeCache().isEnabled();
}

void RenderManager::clearSpeculativeCache() {
    ImageAllocator::instance().speculativeCache().clear();
}

Orrery3::XmlIO::v1::ElementPtr RenderManager::GetSpeculativeCacheContents() {
    return ImageAllocator::instance().speculativeCache().getContents();
}

Orrery3::XmlIO::v1::ElementPtr RenderManager::getStatistics() {
    Orrery3::XmlIO::v1::ElementPtr root = Orrery3::XmlIO::v1::Element::create("statistics");
    Orrery3::XmlIO::v1::ElementPtr block = Private::addStatisticsBlock(*root, "Render Manager");
    Private::addStatisticsEntry(*block, "Render Threads", getRenderThreads());
    Private::addStatisticsEntry(*block, "Tile Width", getGlobalTileWidth());
    Private::addStatisticsEntry(*block, "Tile Height", getGlobalTileHeight());
    Private::addStatisticsEntry(*block, "Speculative Caching Enabled",
                                getSpeculativeCachingEnable());
    ImageAllocator::instance().addStatistics(*root, getRenderThreads());
    return root;
}

void RenderManager::resetStatistics() {
    s_renderSystemProfiler.reset();
    ImageAllocator::instance().resetStatistics();
}

void RenderManager::printImageMemoryUsage() {
    ImageAllocator::instance().printMemoryUsage(std::cerr);
}

bool RenderManager::CheckAbort() {
    return t_cancelChecker && t_cancelChecker->shouldAbort();
}

void RenderManager::SetCancelChecker(CancelChecker* checker) {
    t_cancelChecker = checker;
}

void RenderManager::ClearRenderTaskCache() {
    Private::RenderTaskCache::instance().clear();
}

void RenderManager::SetMaxImageMemory(uint64_t megabytes) {
    ImageAllocator::instance().setMaxMemory(megabytesToBytes(megabytes));
}

void RenderManager::SetMaxDiskUsage(uint64_t megabytes) {
    ImageAllocator::instance().setMaxDiskUsage(megabytesToBytes(megabytes));
}

uint64_t RenderManager::GetMaxImageMemory() {
    return static_cast<uint64_t>(ImageAllocator::instance().getMaxMemory()) >> 20;
}

int64_t RenderManager::GetMaxDiskUsage() {
    return ImageAllocator::instance().getMaxDiskUsage() / kMegabyte;
}

}  // namespace TESSERA
