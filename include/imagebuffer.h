/// @file
/// ImageBuffer: a reference-counted handle on one allocator-managed image.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "imglib/image.h"
#include "tessera_export.h"
#include "util/rect.h"
#include "util/ref_ptr.h"

namespace TESSERA {
namespace Private {
struct ImageBufferAccess;
}

/// Copying a handle shares the image; pixels are never copied. An image gets
/// memory on its first lock; while nobody holds it locked the allocator may
/// move its pixels to a swap file, and the next lock brings them back.
class TESSERA_API ImageBuffer {
public:
    class Impl;

    ImageBuffer();
    /// A new image accounted by the process-wide allocator, with no memory yet.
    ///@{
    ImageBuffer(uint64_t channels, const UTIL::Rect& bounds, const std::string& comment);
    ImageBuffer(const ImageBuffer&);
    ImageBuffer(ImageBuffer&&) noexcept;
    ImageBuffer& operator=(const ImageBuffer&);
    ImageBuffer& operator=(ImageBuffer&&) noexcept;
    ///@}
    /// Releasing a handle never throws.
    ~ImageBuffer();

    void setNull();                                   ///< lets go of the image
    bool isNull() const { return m_impl.is_null(); }  ///< no image
    /// Same image.
    ///@{
    bool operator==(const ImageBuffer& o) const { return m_impl == o.m_impl; }
    bool operator!=(const ImageBuffer& o) const { return m_impl != o.m_impl; }
    ///@}

    uint64_t getChannels() const;  ///< the channel bits it holds
    UTIL::Rect getBounds() const;  ///< the pixels it covers
    /// Bytes of pixel memory the image takes (rows padded to 16 bytes); 0 when null.
    int64_t getSize() const;
    /// "unallocated image buffer" for a null handle.
    ///@{
    std::string getComment() const;
    void setComment(const std::string& comment);
    ///@}

    /// The image record; the image must be locked (or have no pixels).
    const IMGLIB::Image* getImage() const;

    /// Locks nest; the pixels stay in memory until the last unlock. After the
    /// allocator overran, unlock still unlocks and then throws
    /// UTIL::OutOfMemoryException, as every image operation does.
    ///@{
    void lock();
    void unlock();
    ///@}
    /// unlock() for destructors: never throws; a failure other than the
    /// overrun (already reported) is written to standard error.
    void unlockNoThrow() noexcept;

private:
    friend struct Private::ImageBufferAccess;
    explicit ImageBuffer(RCX_ptr_v4::ref_ptr<Impl> impl);

    RCX_ptr_v4::ref_ptr<Impl> m_impl;
};

/// Locks a buffer for its own lifetime.
class TESSERA_API ImageBuffer_LockScoper {
public:
    /// Locks `buffer` until this is destroyed.
    explicit ImageBuffer_LockScoper(ImageBuffer& buffer) : m_buffer(&buffer) { m_buffer->lock(); }
    ~ImageBuffer_LockScoper();
    ImageBuffer_LockScoper(const ImageBuffer_LockScoper&) = delete;
    ImageBuffer_LockScoper& operator=(const ImageBuffer_LockScoper&) = delete;

private:
    ImageBuffer* m_buffer;
};

/// Locks any number of buffers and unlocks them all on destruction.
class TESSERA_API ImageBuffer_MultiLockScoper {
public:
    ImageBuffer_MultiLockScoper() = default;
    ~ImageBuffer_MultiLockScoper();
    ImageBuffer_MultiLockScoper(const ImageBuffer_MultiLockScoper&) = delete;
    ImageBuffer_MultiLockScoper& operator=(const ImageBuffer_MultiLockScoper&) = delete;

    /// Locks a copy of buffer and returns its image; null for a null buffer.
    const IMGLIB::Image* push(ImageBuffer& buffer);

private:
    std::vector<ImageBuffer> m_buffers;
};

/// An image that is locked from construction to destruction.
class TESSERA_API TempImageBuffer {
public:
    /// A new image of `channels` over `bounds`, locked; `comment` names it in reports.
    TempImageBuffer(uint64_t channels, const UTIL::Rect& bounds, const std::string& comment);
    ~TempImageBuffer();
    TempImageBuffer(const TempImageBuffer&) = delete;
    TempImageBuffer& operator=(const TempImageBuffer&) = delete;

    ImageBuffer& imageBuffer() { return m_buffer; }                        ///< the buffer, to share
    const IMGLIB::Image* getImage() const { return m_buffer.getImage(); }  ///< its pixels

private:
    ImageBuffer m_buffer;
};

}  // namespace TESSERA
