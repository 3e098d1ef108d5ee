// ImageAllocator: the process-wide account of image memory and swap files.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <iosfwd>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "imagebuffer.h"
#include "rendersystem/images/cachedata.h"
#include "util/taskprofiler.h"
#include "xml/element.h"

namespace TESSERA {
namespace Private {

class SpeculativeCache;

// Freed pixel blocks kept for reuse, by size: a new tile of a size just
// freed takes a block whose pages are already mapped (and warm in cache)
// instead of faulting fresh zeroed pages in, which costs more than most
// operators. Holds at most a quarter of the memory budget, 256 MiB at most;
// when full, the blocks freed longest ago make room (sizes a render no
// longer makes would otherwise fill it for good, and every tile after
// them fault its pages in afresh). Counted against the budget with the
// images, and emptied first when a reservation would exceed it. m_mutex is
// a leaf.
class BlockPool {
public:
    ~BlockPool() { clear(); }
    // A block of exactly `bytes`, or null.
    void* take(size_t bytes);
    // Keeps the block, freeing older ones to make room (returns false when
    // it alone is larger than the pool: the caller frees it).
    bool give(void* block, size_t bytes, int64_t maxMemory);
    // Counts pixels made, and now and then hands free memory back.
    void churn(size_t bytes);
    void clear();
    size_t bytesHeld() const;

private:
    struct Held {
        void* block;
        size_t bytes;
    };
    using Age = std::list<Held>;  // oldest first
    mutable std::mutex m_mutex;
    Age m_age;
    std::map<size_t, std::deque<Age::iterator>> m_free;  // per size, oldest first
    size_t m_bytes = 0;
    std::atomic<size_t> m_churnSinceTrim{0};
};

// Every ImageBuffer's pixels are accounted here against a memory budget and
// a disk budget. A reservation that exceeds the memory budget first asks the
// speculative cache for memory, then writes the oldest unlocked images to
// swap files; if that is not enough the process is marked "overran" for good
// and image operations throw UTIL::OutOfMemoryException.
//
// Locks, in the order they may nest: an image's own mutex -> the memory
// mutex -> the locked-list or unlocked-list mutex (leaves, held briefly) and
// the speculative cache's mutex. The saver takes the unlocked-list mutex and
// only try-locks an image under it, so it never waits against that order.
class ImageAllocator {
public:
    static constexpr int64_t kDefaultMaxMemory = int64_t(256) << 20;
    static constexpr int64_t kDefaultMaxDiskUsage = int64_t(8) << 30;
    static constexpr const char* kSwapFilePrefix = "marlin_cacheFile";
    static constexpr const char* kSaveCategory =
        "[Image Allocator] : Image Disk Saving (On One Thread)";
    static constexpr const char* kLoadCategory =
        "[Image Allocator] : Image Disk Loading (Across Threads)";
    static constexpr const char* kOverranMessage = "ImageAllocator overran available memory.";

    // The process-wide allocator; its swap directory is MARLIN_TMPDIR, or the
    // system's temporary directory when that is unset.
    static ImageAllocator& instance();
    explicit ImageAllocator(std::string tempDirectory);
    ~ImageAllocator();
    ImageAllocator(const ImageAllocator&) = delete;
    ImageAllocator& operator=(const ImageAllocator&) = delete;

    // Budgets in bytes: plain stores, the budget is not re-checked.
    void setMaxMemory(int64_t bytes) { m_maxMemory.store(bytes); }
    int64_t getMaxMemory() const { return m_maxMemory.load(); }
    void setMaxDiskUsage(int64_t bytes) { m_maxDiskUsage.store(bytes); }
    int64_t getMaxDiskUsage() const { return m_maxDiskUsage.load(); }

    int64_t getMemUsage() const;
    // Freed pixel blocks kept for reuse: resident, and within the budget
    // together with the usage.
    int64_t getPooledBytes() const { return static_cast<int64_t>(m_blocks.bytesHeld()); }
    int64_t getDiskUsage() const;
    int64_t getFileInMemUsage() const;
    int64_t getPeakMemUsage() const;
    int64_t getPeakDiskUsage() const;
    int64_t getPeakFileInMemUsage() const;
    bool hasUnlockedImages() const;
    size_t getLockedImageCount() const;
    size_t getUnlockedImageCount() const;
    const std::string& getTempDirectory() const { return m_tempDirectory; }

    // The "Image Memory Management" block and the cache's block, appended to parent.
    void addStatistics(Orrery3::XmlIO::v1::Element& parent, uint64_t renderThreads) const;
    void resetStatistics();
    // Usage lines for RenderManager::printImageMemoryUsage.
    void printMemoryUsage(std::ostream& os) const;

    SpeculativeCache& speculativeCache() { return *m_cache; }
    // Attaches a cache record to the image, when speculative caching is on.
    void markCacheable(ImageBuffer& buffer, const CacheDataPtr& data);

    // Once any reservation overran, for the rest of the process.
    static bool overran() { return s_overran.load(); }
    // Throws UTIL::OutOfMemoryException when overran() holds.
    static void checkOverran();

    // --- Used by ImageBuffer::Impl and the speculative cache. ---
    // Lock and unlock bookkeeping; the caller holds the image's mutex.
    void onFirstLock(ImageBuffer::Impl* image);
    void onLastUnlock(ImageBuffer::Impl* image);
    // The last handle is gone: keep the image in the cache or destroy it.
    void release(ImageBuffer::Impl* image) noexcept;
    // Frees the pixels and swap file of an image nobody references, and the Impl.
    void destroy(ImageBuffer::Impl* image) noexcept;
    // Writes one unlocked image (the oldest) to a swap file; false when none
    // could be taken.
    bool saveToDisk();

private:
    void allocate(ImageBuffer::Impl* image);
    void loadFromDisk(ImageBuffer::Impl* image);
    // Writes the image's pixels to a new swap file (a taken name is tried
    // again under another) and frees them; false, with the reason in `why`,
    // when the image cannot be saved. The caller holds the image's mutex.
    bool saveImage(ImageBuffer::Impl* image, std::string& why);
    void freePixels(ImageBuffer::Impl* image) noexcept;
    void reserve(ImageBuffer::Impl* image, int64_t size);
    // One attempt: false (nothing reserved) when the budget cannot be met
    // now, unless `last`, when that is an overrun.
    bool tryReserve(ImageBuffer::Impl* image, int64_t size, bool last);
    void unaccount(bool fileIn, int64_t size);
    void adjustDiskUsage(int64_t delta);
    void removeFromUnlocked(ImageBuffer::Impl* image);
    void removeFromLocked(ImageBuffer::Impl* image);
    std::string newSwapFilePath() const;
    void printState(std::ostream& os) const;

    // The memory mutex, taken only once per thread: a thread that already
    // holds it (a reservation freeing memory while it evicts) goes on without.
    class MemoryLock {
    public:
        explicit MemoryLock(const ImageAllocator& allocator);
        ~MemoryLock();

    private:
        const ImageAllocator& m_allocator;
        bool m_owns;
    };

    const std::string m_tempDirectory;
    std::list<ImageBuffer::Impl*> m_lockedImages;    // guarded by m_lockedMutex
    std::list<ImageBuffer::Impl*> m_unlockedImages;  // oldest first; m_unlockedMutex
    mutable std::mutex m_lockedMutex;
    mutable std::mutex m_unlockedMutex;
    mutable std::mutex m_memoryMutex;  // guards the counters below
    mutable std::atomic<std::thread::id> m_memoryMutexOwner{};
    int64_t m_memUsage = 0;
    std::atomic<int64_t> m_maxMemory{kDefaultMaxMemory};
    int64_t m_peakMemory = 0;
    int64_t m_fileInMemUsage = 0;
    int64_t m_diskUsage = 0;
    std::atomic<int64_t> m_maxDiskUsage{kDefaultMaxDiskUsage};
    int64_t m_peakDiskUsage = 0;
    int64_t m_peakFileInMemory = 0;
    UTIL::TaskProfiler m_profiler;
    BlockPool m_blocks;
    std::unique_ptr<SpeculativeCache> m_cache;

    static std::atomic<bool> s_overran;
};

}  // namespace Private
}  // namespace TESSERA
