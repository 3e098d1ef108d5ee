#include "rendersystem/images/imagebuffer_imp.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "imglib/rawdump.h"
#include "rendersystem/images/imageallocator.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/images/imagebuffer_imp")

// Once the allocator has overran, every checked site reports that instead of
// its own condition.
#define IMAGE_ASSERT(expr)                       \
    do {                                         \
        Private::ImageAllocator::checkOverran(); \
        UTIL_ASSERT(expr);                       \
    } while (0)

namespace TESSERA {

ImageBuffer::Impl::Impl(uint64_t imgChannels, const UTIL::Rect& bounds, std::string comment,
                        Private::ImageAllocator* allocator)
    : m_comment(std::move(comment)), m_allocator(allocator) {
    IMGLIB::CheckError();
    if (!IMGLIB::IsChannelMaskValid(imgChannels))
        std::cerr << "Invalid Channel Mask " << imgChannels << std::endl;
    IMAGE_ASSERT(IMGLIB::IsChannelMaskValid(imgChannels));

    m_image.channels = imgChannels;
    m_image.x1 = bounds.xmin;
    m_image.y1 = bounds.ymin;
    m_image.x2 = bounds.xmax;
    m_image.y2 = bounds.ymax;
    const int64_t pixelBytes = IMGLIB::GetPixelBytes(imgChannels);
    IMAGE_ASSERT(IMGLIB::GetError() == IMGLIB::ERROR_NONE);

    // The width is taken as a 32-bit value.
    const int64_t width = std::max<int32_t>(0, static_cast<int32_t>(bounds.xmax - bounds.xmin));
    m_image.rowBytes = IMGLIB::GetPaddedRowBytes(width, pixelBytes, bounds.height());
    // A rectangle of 2^31 x 2^31 has more bytes than 64 bits count: no
    // budget could hold it, and its size must not wrap into one that fits.
    int64_t bytes = 0;
    if (__builtin_mul_overflow(m_image.height(), m_image.rowBytes, &bytes))
        throw UTIL::OutOfMemoryException("ImageAllocator: an image of " + std::to_string(width) +
                                         " x " + std::to_string(m_image.height()) +
                                         " pixels is larger than any memory");
    m_isEmptyImage = bytes == 0;
}

ImageBuffer::Impl::Impl(const IMGLIB::Image& view, std::shared_ptr<const void> owner,
                        std::string comment)
    : m_image(view),
      m_comment(std::move(comment)),
      m_allocator(nullptr),
      m_viewOwner(std::move(owner)) {}

ImageBuffer::Impl::Impl(const ImageBuffer& parent, const UTIL::Rect& source,
                        const UTIL::Rect& bounds, std::string comment)
    : m_comment(std::move(comment)),
      m_allocator(nullptr),
      m_aliasOf(parent),
      m_aliasX(source.xmin),
      m_aliasY(source.ymin) {
    UTIL_ASSERT(parent.getBounds().contains(source));
    UTIL_ASSERT(source.width() == bounds.width() && source.height() == bounds.height());
    const IMGLIB::Image& from = parent.m_impl->m_image;
    m_image.channels = from.channels;
    m_image.x1 = bounds.xmin;
    m_image.y1 = bounds.ymin;
    m_image.x2 = bounds.xmax;
    m_image.y2 = bounds.ymax;
    m_image.rowBytes = from.rowBytes;
}

void ImageBuffer::Impl::releaseRef() noexcept {
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    if (isView())
        delete this;  // the owner's pixels stay where they are
    else
        m_allocator->release(this);
}

void ImageBuffer::Impl::lock() {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (isAlias()) {
        // Lock order: an alias's mutex before its parent's.
        if (m_lockCount++ != 0) return;
        try {
            m_aliasOf.lock();
        } catch (...) {
            --m_lockCount;
            throw;
        }
        const IMGLIB::Image* parent = m_aliasOf.getImage();
        m_image.pixelPtr = static_cast<unsigned char*>(parent->pixelPtr) +
                           (m_aliasY - parent->y1) * parent->rowBytes +
                           (m_aliasX - parent->x1) * IMGLIB::GetPixelBytes(parent->channels);
        return;
    }
    if (m_isEmptyImage || isView()) return;
    if (++m_lockCount != 1) return;
    try {
        m_allocator->onFirstLock(this);
    } catch (...) {
        --m_lockCount;
        throw;
    }
}

void ImageBuffer::Impl::unlock() {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (isAlias()) {
        IMAGE_ASSERT(m_lockCount > 0);
        if (--m_lockCount != 0) return;
        m_image.pixelPtr = nullptr;
        m_aliasOf.unlock();
        return;
    }
    if (m_isEmptyImage || isView()) return;
    if (m_lockCount <= 0) IMAGE_ASSERT(m_lockCount > 0);
    if (--m_lockCount == 0) m_allocator->onLastUnlock(this);
    // The bookkeeping is done first so the image stays consistent.
    Private::ImageAllocator::checkOverran();
}

const IMGLIB::Image* ImageBuffer::Impl::getImage() {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (!isView() || isAlias()) IMAGE_ASSERT(m_lockCount > 0 || m_isEmptyImage);
    return &m_image;
}

int ImageBuffer::Impl::writeSwapFile(const std::string& path) {
    if (m_isEmptyImage) return IMGLIB::ERROR_NULL_IMAGE;
    IMAGE_ASSERT(m_lockCount == 0);
    IMAGE_ASSERT(m_image.pixelPtr != 0);
    IMGLIB::ClearError();
    IMGLIB::WriteRAW(path, &m_image);
    // An image without pixels to dump is no failure.
    const int error = IMGLIB::GetError();
    return error == IMGLIB::WARNING_EMPTY_IMAGE ? IMGLIB::ERROR_NONE : error;
}

}  // namespace TESSERA
