#include "imagebuffer.h"

#include <iostream>

#include "util/exceptions.h"

#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/imagebuffer_imp.h"

namespace TESSERA {

ImageBuffer::ImageBuffer(uint64_t channels, const UTIL::Rect& bounds, const std::string& comment)
    : m_impl(new Impl(channels, bounds, comment, &Private::ImageAllocator::instance())) {}

ImageBuffer::ImageBuffer(RCX_ptr_v4::ref_ptr<Impl> impl) : m_impl(std::move(impl)) {}
ImageBuffer::ImageBuffer() = default;
ImageBuffer::ImageBuffer(const ImageBuffer&) = default;
ImageBuffer::ImageBuffer(ImageBuffer&&) noexcept = default;
ImageBuffer& ImageBuffer::operator=(const ImageBuffer&) = default;
ImageBuffer& ImageBuffer::operator=(ImageBuffer&&) noexcept = default;
ImageBuffer::~ImageBuffer() = default;

void ImageBuffer::setNull() {
    m_impl.reset();
}

uint64_t ImageBuffer::getChannels() const {
    return m_impl ? m_impl->m_image.channels : 0;
}

UTIL::Rect ImageBuffer::getBounds() const {
    if (!m_impl) return UTIL::Rect();
    const IMGLIB::Image& image = m_impl->m_image;
    return UTIL::Rect(image.x1, image.y1, image.x2, image.y2);
}

int64_t ImageBuffer::getSize() const {
    return m_impl ? m_impl->size() : 0;
}

std::string ImageBuffer::getComment() const {
    if (!m_impl) return "unallocated image buffer";
    std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    return m_impl->m_comment;
}

void ImageBuffer::setComment(const std::string& comment) {
    if (!m_impl) return;
    std::lock_guard<std::mutex> lock(m_impl->m_mutex);
    m_impl->m_comment = comment;
}

const IMGLIB::Image* ImageBuffer::getImage() const {
    return m_impl ? m_impl->getImage() : nullptr;
}

void ImageBuffer::lock() {
    if (m_impl) m_impl->lock();
}

void ImageBuffer::unlock() {
    if (m_impl) m_impl->unlock();
}

void ImageBuffer::unlockNoThrow() noexcept {
    try {
        unlock();
    } catch (const UTIL::OutOfMemoryException&) {
    } catch (const std::exception& e) {
        std::cerr << "ImageBuffer: unlock failed: " << e.what() << std::endl;
    }
}

ImageBuffer_LockScoper::~ImageBuffer_LockScoper() {
    m_buffer->unlockNoThrow();
}

ImageBuffer_MultiLockScoper::~ImageBuffer_MultiLockScoper() {
    for (ImageBuffer& buffer : m_buffers) buffer.unlockNoThrow();
}

const IMGLIB::Image* ImageBuffer_MultiLockScoper::push(ImageBuffer& buffer) {
    if (buffer.isNull()) return nullptr;
    buffer.lock();
    m_buffers.push_back(buffer);
    return buffer.getImage();
}

TempImageBuffer::TempImageBuffer(uint64_t channels, const UTIL::Rect& bounds,
                                 const std::string& comment)
    : m_buffer(channels, bounds, comment) {
    m_buffer.lock();
}

TempImageBuffer::~TempImageBuffer() {
    m_buffer.unlockNoThrow();
    m_buffer.setNull();
}

}  // namespace TESSERA
