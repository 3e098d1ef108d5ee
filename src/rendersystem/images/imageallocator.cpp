#include "rendersystem/images/imageallocator.h"

#include <malloc.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <limits>
#include <new>
#include <random>
#include <stdexcept>
#include <thread>

#include "imglib/error.h"
#include "imglib/pixels.h"
#include "imglib/rawdump.h"
#include "private/statistics.h"
#include "rendersystem/images/imagebuffer_imp.h"
#include "rendersystem/images/speculativecache.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/images/imageallocator")

namespace TESSERA {
namespace Private {
namespace {

using Impl = ImageBuffer::Impl;

// Under a sanitizer the sanitizer's allocator owns the heap: the C
// library's arenas hold nothing to hand back, and walking them (they were
// never set up) crashes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCLibraryOwnsTheHeap = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
constexpr bool kCLibraryOwnsTheHeap = false;
#else
constexpr bool kCLibraryOwnsTheHeap = true;
#endif
#else
constexpr bool kCLibraryOwnsTheHeap = true;
#endif

using IMGLIB::kPixelAlignment;

std::string defaultTempDirectory() {
    if (const char* dir = std::getenv("MARLIN_TMPDIR")) return dir;
    std::error_code ec;
    std::filesystem::path tmp = std::filesystem::temp_directory_path(ec);
    return ec ? std::string("/tmp") : tmp.string();
}

// "%%%%-%%%%-%%%%-%%%%" with each % a random lower-case hexadecimal digit.
std::string randomSwapName() {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    static const char* const kDigits = "0123456789abcdef";
    std::string name = "%%%%-%%%%-%%%%-%%%%";
    uint64_t bits = engine();
    for (char& c : name)
        if (c == '%') {
            c = kDigits[bits & 15];
            bits >>= 4;
        }
    return name;
}

// Blocks come in sizes rounded up to a sixteenth of their power of two (at
// most 6% more), so that tiles of nearly the same size (edge tiles, tiles
// of inputs whose areas differ by a few pixels) reuse each other's blocks.
size_t blockBytes(int64_t size) {
    // aligned_alloc wants a whole number of alignment units.
    const size_t bytes = (static_cast<size_t>(size) + kPixelAlignment - 1) & ~(kPixelAlignment - 1);
    if (bytes == 0) return 0;
    const size_t power = size_t(1) << (63 - __builtin_clzll(bytes));
    const size_t step = std::max<size_t>(kPixelAlignment, power / 16);
    return (bytes + step - 1) / step * step;
}

}  // namespace

void* BlockPool::take(size_t bytes) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_free.find(bytes);
    if (it == m_free.end() || it->second.empty()) return nullptr;
    // The most recently freed: warmest in cache.
    const Age::iterator held = it->second.back();
    it->second.pop_back();
    void* block = held->block;
    m_age.erase(held);
    m_bytes -= bytes;
    return block;
}

bool BlockPool::give(void* block, size_t bytes, int64_t maxMemory) {
    const size_t cap = std::min<size_t>(size_t(256) << 20,
                                        static_cast<size_t>(std::max<int64_t>(maxMemory, 0)) / 4);
    if (bytes > cap) return false;
    std::vector<void*> evicted;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        while (m_bytes + bytes > cap) {
            const Held oldest = m_age.front();
            m_free[oldest.bytes].pop_front();
            m_age.pop_front();
            m_bytes -= oldest.bytes;
            evicted.push_back(oldest.block);
        }
        m_free[bytes].push_back(m_age.insert(m_age.end(), Held{block, bytes}));
        m_bytes += bytes;
    }
    for (void* old : evicted) std::free(old);
    return true;
}

// The C library keeps freed memory for its own reuse, and memory freed
// between blocks still alive (pixels, and the buffers files are decoded
// and encoded through) stays resident. After every 64 MB of pixel blocks
// it was asked for (the pool's blocks are not counted: they grow nothing)
// it is asked to hand free pages back, so resident memory follows the
// images alive rather than the most there ever were: a long file-to-file
// render otherwise grows far past its budget. Trimming walks the whole
// heap, so it is not done for every 64 MB of tiles a large graph renders.
void BlockPool::churn(size_t bytes) {
    constexpr size_t kTrimEvery = size_t(64) << 20;
    if (m_churnSinceTrim.fetch_add(bytes) + bytes < kTrimEvery) return;
    m_churnSinceTrim = 0;  // two threads may both trim: harmless
    if (kCLibraryOwnsTheHeap) malloc_trim(0);
}

void BlockPool::clear() {
    Age blocks;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        blocks.swap(m_age);
        m_free.clear();
        m_bytes = 0;
    }
    for (const Held& held : blocks) std::free(held.block);
}

size_t BlockPool::bytesHeld() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_bytes;
}

std::atomic<bool> ImageAllocator::s_overran{false};

ImageAllocator& ImageAllocator::instance() {
    // Never destroyed: images held by other static objects may outlive any
    // destruction order we could pick.
    static ImageAllocator* allocator = new ImageAllocator(defaultTempDirectory());
    return *allocator;
}

ImageAllocator::ImageAllocator(std::string tempDirectory)
    : m_tempDirectory(std::move(tempDirectory)), m_cache(new SpeculativeCache(*this)) {}

ImageAllocator::~ImageAllocator() {
    m_cache->clear();
}

void ImageAllocator::checkOverran() {
    if (s_overran.load()) throw UTIL::OutOfMemoryException(kOverranMessage);
}

ImageAllocator::MemoryLock::MemoryLock(const ImageAllocator& allocator)
    : m_allocator(allocator),
      m_owns(allocator.m_memoryMutexOwner.load() != std::this_thread::get_id()) {
    if (m_owns) {
        m_allocator.m_memoryMutex.lock();
        m_allocator.m_memoryMutexOwner.store(std::this_thread::get_id());
    }
}

ImageAllocator::MemoryLock::~MemoryLock() {
    if (m_owns) {
        m_allocator.m_memoryMutexOwner.store(std::thread::id());
        m_allocator.m_memoryMutex.unlock();
    }
}

int64_t ImageAllocator::getMemUsage() const {
    MemoryLock lock(*this);
    return m_memUsage;
}

int64_t ImageAllocator::getDiskUsage() const {
    MemoryLock lock(*this);
    return m_diskUsage;
}

int64_t ImageAllocator::getFileInMemUsage() const {
    MemoryLock lock(*this);
    return m_fileInMemUsage;
}

int64_t ImageAllocator::getPeakMemUsage() const {
    MemoryLock lock(*this);
    return m_peakMemory;
}

int64_t ImageAllocator::getPeakDiskUsage() const {
    MemoryLock lock(*this);
    return m_peakDiskUsage;
}

int64_t ImageAllocator::getPeakFileInMemUsage() const {
    MemoryLock lock(*this);
    return m_peakFileInMemory;
}

bool ImageAllocator::hasUnlockedImages() const {
    std::lock_guard<std::mutex> lock(m_unlockedMutex);
    return !m_unlockedImages.empty();
}

size_t ImageAllocator::getLockedImageCount() const {
    std::lock_guard<std::mutex> lock(m_lockedMutex);
    return m_lockedImages.size();
}

size_t ImageAllocator::getUnlockedImageCount() const {
    std::lock_guard<std::mutex> lock(m_unlockedMutex);
    return m_unlockedImages.size();
}

void ImageAllocator::onFirstLock(Impl* image) {
    removeFromUnlocked(image);
    if (!image->m_image.pixelPtr) {
        allocate(image);
        try {
            if (!image->m_fileName.empty()) loadFromDisk(image);
        } catch (...) {
            onLastUnlock(image);  // unlocked again, in memory
            throw;
        }
    }
    std::lock_guard<std::mutex> lock(m_lockedMutex);
    UTIL_ASSERT_TEXT(!image->m_inLocked, "find(m_lockedImages, image) == m_lockedImages.end()");
    image->m_lockedPos = m_lockedImages.insert(m_lockedImages.end(), image);
    image->m_inLocked = true;
}

void ImageAllocator::onLastUnlock(Impl* image) {
    {
        std::lock_guard<std::mutex> lock(m_unlockedMutex);
        UTIL_ASSERT_TEXT(!image->m_inUnlocked,
                         "find(m_unlockedImages, image) == m_unlockedImages.end()");
        image->m_unlockedPos = m_unlockedImages.insert(m_unlockedImages.end(), image);
        image->m_inUnlocked = true;
    }
    removeFromLocked(image);
}

void ImageAllocator::removeFromUnlocked(Impl* image) {
    std::lock_guard<std::mutex> lock(m_unlockedMutex);
    if (!image->m_inUnlocked) return;
    m_unlockedImages.erase(image->m_unlockedPos);
    image->m_inUnlocked = false;
}

void ImageAllocator::removeFromLocked(Impl* image) {
    std::lock_guard<std::mutex> lock(m_lockedMutex);
    if (!image->m_inLocked) return;
    m_lockedImages.erase(image->m_lockedPos);
    image->m_inLocked = false;
}

void ImageAllocator::allocate(Impl* image) {
    if (image->m_image.rowBytes == 0) {
        image->m_image.pixelPtr = nullptr;
        return;
    }
    const int64_t size = image->size();
    reserve(image, size);
    void* block = m_blocks.take(blockBytes(size));
    if (!block) {
        block = std::aligned_alloc(kPixelAlignment, blockBytes(size));
        m_blocks.churn(blockBytes(size));
    }
    if (!block) {
        unaccount(image->isFileIn(), size);
        throw std::bad_alloc();
    }
    image->m_image.pixelPtr = block;
}

void ImageAllocator::reserve(Impl* image, int64_t size) {
    // An image larger than the whole budget could never be given memory,
    // whatever else were freed: the render that asked for it fails, and
    // the allocator is left as it was for the next one.
    if (size > m_maxMemory.load())
        throw UTIL::OutOfMemoryException("ImageAllocator: an image of " + std::to_string(size) +
                                         " bytes is larger than the whole memory budget (" +
                                         std::to_string(m_maxMemory.load()) + " bytes)");
    // Images other threads are releasing give their memory back under the
    // memory lock, so before an overrun is declared the lock is let go a
    // few times for them to finish.
    constexpr int kAttempts = 50;
    for (int attempt = 1; !tryReserve(image, size, attempt == kAttempts); ++attempt)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

bool ImageAllocator::tryReserve(Impl* image, int64_t size, bool last) {
    MemoryLock lock(*this);
    const bool fileIn = image->isFileIn();
    if (fileIn) {
        m_fileInMemUsage += size;
        m_peakFileInMemory = std::max(m_peakFileInMemory, m_fileInMemUsage);
    }
    m_memUsage += size;
    // Freed blocks kept for reuse are resident too: they go first.
    if (m_memUsage + static_cast<int64_t>(m_blocks.bytesHeld()) > m_maxMemory.load())
        m_blocks.clear();
    // Entry needs usage strictly above the budget; eviction then goes on,
    // and an overrun is declared, while usage is at or above it.
    if (m_memUsage > m_maxMemory.load()) {
        try {
            m_cache->release(m_memUsage - m_maxMemory.load());
            if (m_memUsage > m_maxMemory.load()) {
                do {
                    if (!hasUnlockedImages() || m_diskUsage >= m_maxDiskUsage.load()) break;
                    // Nothing saved: the oldest image is busy on another
                    // thread that is about to take it off the list.
                    if (!saveToDisk()) std::this_thread::yield();
                } while (m_memUsage >= m_maxMemory.load());
            }
            if (m_memUsage >= m_maxMemory.load()) {
                if (!last) {
                    unaccount(fileIn, size);
                    return false;
                }
                printState(std::cerr);
                s_overran.store(true);
                throw UTIL::OutOfMemoryException(kOverranMessage);
            }
        } catch (...) {
            // The reservation did not happen: give its bytes back.
            if (fileIn) m_fileInMemUsage -= size;
            m_memUsage -= size;
            throw;
        }
    }
    m_peakMemory = std::max(m_peakMemory, m_memUsage);
    return true;
}

bool ImageAllocator::saveToDisk() {
    Impl* image = nullptr;
    std::unique_lock<std::mutex> imageLock;
    {
        std::lock_guard<std::mutex> lock(m_unlockedMutex);
        if (m_unlockedImages.empty()) return false;
        image = m_unlockedImages.front();
        imageLock = std::unique_lock<std::mutex>(image->m_mutex, std::try_to_lock);
        if (!imageLock.owns_lock()) return false;
        m_unlockedImages.pop_front();
        image->m_inUnlocked = false;
    }
    const auto start = std::chrono::steady_clock::now();
    std::string why;
    if (!saveImage(image, why)) {
        std::cerr << "ImageAllocator::SaveToDisk failed" << std::endl;
        // Back among the unlocked images: it is still whole in memory.
        {
            std::lock_guard<std::mutex> lock(m_unlockedMutex);
            image->m_unlockedPos = m_unlockedImages.insert(m_unlockedImages.begin(), image);
            image->m_inUnlocked = true;
        }
        throw UTIL::ErrorException("Saving failed: image '" + image->m_comment + "': " + why);
    }
    m_profiler.addTime(kSaveCategory, UTIL::millisecondsSince(start));
    return true;
}

bool ImageAllocator::saveImage(Impl* image, std::string& why) {
    // A name another file already has is tried again under a new one.
    constexpr int kNames = 8;
    for (int attempt = 0; attempt < kNames; ++attempt) {
        const std::string path = newSwapFilePath();
        const int status = image->writeSwapFile(path);
        if (status == IMGLIB::ERROR_FILE_EXISTS) continue;
        if (status != IMGLIB::ERROR_NONE) {
            why = IMGLIB::GetErrorMessage();
            return false;
        }
        image->m_fileName = path;
        adjustDiskUsage(image->size());
        freePixels(image);
        return true;
    }
    why = "no free swap file name in " + m_tempDirectory;
    return false;
}

void ImageAllocator::loadFromDisk(Impl* image) {
    // Let a reservation in progress on another thread finish first.
    { MemoryLock wait(*this); }
    const auto start = std::chrono::steady_clock::now();
    IMGLIB::ClearError();
    if (IMGLIB::ReadRAW(&image->m_image, image->m_fileName) != IMGLIB::ERROR_NONE) {
        // The pixels are not trustworthy: they are made NaN rather than
        // left as plausible garbage, the useless file goes, and locking the
        // image fails naming it (a render using it fails).
        const std::string message = "cannot restore image '" + image->m_comment +
                                    "' from its swap file " + image->m_fileName + ": " +
                                    IMGLIB::GetErrorMessage();
        std::cerr << "ImageAllocator: " << message << std::endl;
        const int pending = IMGLIB::GetError();
        const float nan = std::numeric_limits<float>::quiet_NaN();
        const float rgba[4] = {nan, nan, nan, nan};
        IMGLIB::Fill(&image->m_image, rgba);
        adjustDiskUsage(-image->size());
        std::remove(image->m_fileName.c_str());
        image->m_fileName.clear();
        IMGLIB::SetError(pending, message);
        throw UTIL::ErrorException(message);
    }
    adjustDiskUsage(-image->size());
    std::remove(image->m_fileName.c_str());
    image->m_fileName.clear();
    m_profiler.addTime(kLoadCategory, UTIL::millisecondsSince(start));
}

void ImageAllocator::freePixels(Impl* imagePtr) noexcept {
    void* block = imagePtr->m_image.pixelPtr;
    if (!m_blocks.give(block, blockBytes(imagePtr->size()), m_maxMemory.load())) std::free(block);
    imagePtr->m_image.pixelPtr = nullptr;
    unaccount(imagePtr->isFileIn(), imagePtr->size());
}

void ImageAllocator::unaccount(bool fileIn, int64_t size) {
    MemoryLock lock(*this);
    if (fileIn) {
        m_fileInMemUsage -= size;
        UTIL_ASSERT(m_fileInMemUsage >= 0);
    }
    m_memUsage -= size;
    UTIL_ASSERT(m_memUsage >= 0);
}

void ImageAllocator::adjustDiskUsage(int64_t delta) {
    MemoryLock lock(*this);
    m_diskUsage += delta;
    UTIL_ASSERT(m_diskUsage >= 0);
    m_peakDiskUsage = std::max(m_peakDiskUsage, m_diskUsage);
}

void ImageAllocator::release(Impl* image) noexcept {
    try {
        {
            std::lock_guard<std::mutex> lock(image->m_mutex);
            removeFromUnlocked(image);
        }
        if (image->m_cacheData && image->m_lockCount == 0 &&
            m_cache->offer(image, getMemUsage(), m_maxMemory.load())) {
            m_cache->insert(image);
            return;
        }
    } catch (const std::exception& e) {
        std::cerr << "ImageAllocator: could not keep released image '" << image->m_comment
                  << "': " << e.what() << std::endl;
    }
    destroy(image);
}

void ImageAllocator::destroy(Impl* image) noexcept {
    try {
        if (image->m_lockCount != 0) {
            // The last handle went while the image was still locked.
            std::cerr << "ImageAllocator: image '" << image->m_comment
                      << "' released while locked (m_lockCount == 0 does not hold)" << std::endl;
            removeFromLocked(image);
        }
        if (!image->m_fileName.empty()) {
            adjustDiskUsage(-image->size());
            std::remove(image->m_fileName.c_str());
        }
        if (image->m_image.pixelPtr) freePixels(image);
    } catch (const std::exception& e) {
        std::cerr << "ImageAllocator: releasing image '" << image->m_comment << "': " << e.what()
                  << std::endl;
    }
    delete image;
}

void ImageAllocator::markCacheable(ImageBuffer& buffer, const CacheDataPtr& data) {
    if (!m_cache->isEnabled()) return;
    Impl* image = ImageBufferAccess::impl(buffer);
    if (!image) return;
    std::lock_guard<std::mutex> lock(image->m_mutex);
    image->m_cacheData = data;
}

std::string ImageAllocator::newSwapFilePath() const {
    return (std::filesystem::path(m_tempDirectory) / (kSwapFilePrefix + randomSwapName())).string();
}

void ImageAllocator::printState(std::ostream& os) const {
    os << "ImageAllocator: " << '\n'
       << "   mem usage: " << m_memUsage << '\n'
       << "   max mem usage: " << m_maxMemory.load() << '\n'
       << "   disk usage: " << m_diskUsage << '\n'
       << "   max disk usage: " << m_maxDiskUsage.load() << '\n'
       << "   num unlocked images: " << getUnlockedImageCount() << '\n';
    std::lock_guard<std::mutex> lock(m_lockedMutex);
    os << "   num locked images: " << m_lockedImages.size() << '\n';
    // Lock counts are read without the images' mutexes: a best-effort report
    // written just before the process gives up on its budget.
    for (const Impl* image : m_lockedImages)
        os << "      "
           << "Buf: " << static_cast<const void*>(image) << " lockCount: " << image->m_lockCount
           << " comment: " << image->m_comment << '\n';
    os.flush();
}

void ImageAllocator::printMemoryUsage(std::ostream& os) const {
    os << "Image allocator memory usage: " << getMemUsage() << '\n'
       << "Image allocator max memory usage: " << getMaxMemory() << '\n'
       << "Speculative cache memory usage: " << m_cache->getMemoryUsage() << std::endl;
}

void ImageAllocator::addStatistics(Orrery3::XmlIO::v1::Element& parent,
                                   uint64_t renderThreads) const {
    using Orrery3::XmlIO::v1::ElementPtr;
    ElementPtr block = addStatisticsBlock(parent, "Image Memory Management");
    addStatisticsEntry(*block, "Peak Memory Usage", getPeakMemUsage());
    addStatisticsEntry(*block, "Peak Memory Usage (FileIn)", getPeakFileInMemUsage());
    addStatisticsEntry(*block, "Max Memory Allowed", getMaxMemory());
    addStatisticsEntry(*block, "Peak Disk Usage", getPeakDiskUsage());
    const double toDisk = m_profiler.getTime(kSaveCategory);
    // Loading happens on every render thread at once: report wall time.
    double fromDisk = m_profiler.getTime(kLoadCategory);
    if (renderThreads > 0) fromDisk /= static_cast<double>(renderThreads);
    addStatisticsEntry(*block, "Tile Swap Count (to disk)", m_profiler.getCount(kSaveCategory));
    addStatisticsEntry(*block, "Tile Swap Time (to disk)", toDisk);
    addStatisticsEntry(*block, "Tile Swap Count (from disk)", m_profiler.getCount(kLoadCategory));
    addStatisticsEntry(*block, "Tile Swap Time (from disk)", fromDisk);
    addStatisticsEntry(*block, "Tile Swap Time (total)", toDisk + fromDisk);
    m_cache->addStatistics(parent);
}

void ImageAllocator::resetStatistics() {
    m_profiler.reset();
    {
        MemoryLock lock(*this);
        m_peakMemory = 0;
        m_peakFileInMemory = 0;
        // Peak disk usage is kept: it tells how much swap space a session needed.
    }
    m_cache->resetStatistics();
}

}  // namespace Private
}  // namespace TESSERA
