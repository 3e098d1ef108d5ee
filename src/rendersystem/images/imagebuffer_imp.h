// ImageBuffer::Impl: one image record, its pixel memory and its swap file.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "imagebuffer.h"
#include "imglib/image.h"
#include "rendersystem/images/cachedata.h"

namespace TESSERA {
namespace Private {
class ImageAllocator;
}

// Every field but the reference count is guarded by m_mutex. The allocator
// works on Impls directly (it owns the lists they move between); everyone
// else goes through ImageBuffer handles.
class ImageBuffer::Impl {
public:
    Impl(uint64_t channels, const UTIL::Rect& bounds, std::string comment,
         Private::ImageAllocator* allocator);
    // A view of pixels that `owner` (if any) keeps alive: always in memory,
    // never locked, counted, cached or swapped by the allocator.
    Impl(const IMGLIB::Image& view, std::shared_ptr<const void> owner, std::string comment);
    // An alias: the pixels of `source` (inside parent's bounds) placed at
    // `bounds`, a rectangle of the same size. Locking it locks the parent,
    // so the parent may still be swapped out while nobody holds the alias.
    Impl(const ImageBuffer& parent, const UTIL::Rect& source, const UTIL::Rect& bounds,
         std::string comment);
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void addRef() noexcept { m_refCount.fetch_add(1, std::memory_order_relaxed); }
    // The last reference hands the image to the allocator, which keeps it in
    // the speculative cache or destroys it. Never throws.
    void releaseRef() noexcept;

    void lock();
    void unlock();
    const IMGLIB::Image* getImage();
    // Dumps the pixels to a new file at path and returns the IMGLIB status
    // (its message says why when it is not ERROR_NONE). The caller holds
    // m_mutex and the image is unlocked and in memory.
    int writeSwapFile(const std::string& path);

    int64_t size() const { return m_image.height() * m_image.rowBytes; }
    bool isInRam() const { return m_image.pixelPtr != nullptr; }
    // Views and aliases: not the allocator's, and gone with their last handle.
    bool isView() const { return m_allocator == nullptr; }
    bool isAlias() const { return !m_aliasOf.isNull(); }
    bool isFileIn() const { return m_comment.find("FILEIN.") != std::string::npos; }
    Private::CacheDataPtr getCacheData() const { return m_cacheData; }

    IMGLIB::Image m_image;
    std::string m_comment;
    int64_t m_lockCount = 0;
    std::string m_fileName;  // swap file while the pixels are on disk
    Private::ImageAllocator* m_allocator;
    std::mutex m_mutex;
    bool m_isEmptyImage = false;
    Private::CacheDataPtr m_cacheData;
    std::shared_ptr<const void> m_viewOwner;  // a view's; const after construction
    ImageBuffer m_aliasOf;                    // an alias's parent; const after construction
    int64_t m_aliasX = 0, m_aliasY = 0;       // where m_image's first pixel lies in it
    // Where the image stands in the allocator's locked or unlocked list
    // (guarded by that list's mutex), so it leaves the list in constant time.
    std::list<Impl*>::iterator m_lockedPos, m_unlockedPos;
    bool m_inLocked = false, m_inUnlocked = false;

private:
    std::atomic<uint32_t> m_refCount{0};
};

namespace Private {

// How the render system and the cache reach the Impl behind a handle.
struct ImageBufferAccess {
    static ImageBuffer::Impl* impl(const ImageBuffer& b) { return b.m_impl.get(); }
    static ImageBuffer wrap(ImageBuffer::Impl* impl) {
        return ImageBuffer(RCX_ptr_v4::ref_ptr<ImageBuffer::Impl>(impl));
    }
    static ImageBuffer view(const IMGLIB::Image& pixels, std::shared_ptr<const void> owner,
                            std::string comment) {
        return wrap(new ImageBuffer::Impl(pixels, std::move(owner), std::move(comment)));
    }
    // The pixels of parent inside `source` shown moved by (dx, dy), without a
    // copy.
    static ImageBuffer alias(const ImageBuffer& parent, const UTIL::Rect& source, int64_t dx,
                             int64_t dy) {
        const UTIL::Rect bounds(source.xmin + dx, source.ymin + dy, source.xmax + dx,
                                source.ymax + dy);
        return wrap(new ImageBuffer::Impl(parent, source, bounds, parent.getComment()));
    }
};

}  // namespace Private
}  // namespace TESSERA
