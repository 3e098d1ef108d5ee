#include "imglib/rawdump.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "imglib/channels.h"
#include "imglib/error.h"

namespace IMGLIB {
namespace {

constexpr char kMagic[8] = {'T', 'S', 'R', 'A', 'W', 'D', 'M', 'P'};
constexpr uint32_t kVersion = 1;

// Fixed little-endian layout; the payload follows: each row's pixel bytes
// (no padding), top row first.
struct Header {
    char magic[8];
    uint32_t version;
    uint32_t headerBytes;
    uint64_t channels;
    int64_t x1, y1, x2, y2;
    int64_t rowBytes;
    uint64_t checksum;  // of the payload
};
static_assert(sizeof(Header) == 72, "raw dump header layout");

// A four-lane multiply-rotate hash: cheap next to the disk, and it tells a
// damaged or swapped payload from the one that was written.
class Checksum {
public:
    void add(const unsigned char* data, size_t n) {
        size_t i = 0;
        for (; i + 32 <= n; i += 32) {
            for (int lane = 0; lane < 4; ++lane) {
                uint64_t w;
                std::memcpy(&w, data + i + 8 * lane, 8);
                m_lanes[lane] = mix(m_lanes[lane], w);
            }
        }
        for (; i < n; ++i) m_lanes[0] = mix(m_lanes[0], data[i]);
        m_bytes += n;
    }
    uint64_t value() const {
        uint64_t h = m_bytes;
        for (uint64_t lane : m_lanes) h = mix(h, lane);
        return h;
    }

private:
    static uint64_t mix(uint64_t h, uint64_t w) {
        h += w * 0xC2B2AE3D27D4EB4FULL;
        h = (h << 31) | (h >> 33);
        return h * 0x9E3779B185EBCA87ULL;
    }
    uint64_t m_lanes[4] = {1, 2, 3, 4};
    uint64_t m_bytes = 0;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) {}
    ~FileDescriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return m_fd; }
    // Closes now, reporting whether buffered data reached the file.
    bool close() { return ::close(std::exchange(m_fd, -1)) == 0; }

private:
    int m_fd;
};

bool writeAll(int fd, const void* data, size_t n) {
    const auto* p = static_cast<const unsigned char*>(data);
    while (n > 0) {
        const ssize_t k = ::write(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool readAll(int fd, void* data, size_t n) {
    auto* p = static_cast<unsigned char*>(data);
    while (n > 0) {
        const ssize_t k = ::read(fd, p, n);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

std::string systemError() {
    return std::strerror(errno);
}

size_t payloadRowBytes(const Image* image) {
    return static_cast<size_t>(image->width() * GetPixelBytes(image->channels));
}

bool hasPixels(const Image* image) {
    return image->width() > 0 && image->height() > 0 && image->channels != 0;
}

}  // namespace

int WriteRAW(const std::string& path, const Image* image) {
    if (!image) return SetError(ERROR_NULL_IMAGE, "WriteRAW: null image");
    if (!IsChannelMaskValid(image->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, "WriteRAW: invalid channel mask");
    if (hasPixels(image) && !image->pixelPtr)
        return SetError(ERROR_NULL_IMAGE, "WriteRAW: image has no pixel memory");

    FileDescriptor fd(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0)
        return SetError(errno == EEXIST ? ERROR_FILE_EXISTS : ERROR_FILE_OPEN,
                        "WriteRAW: cannot create " + path + ": " + systemError());

    Header header{};
    std::memcpy(header.magic, kMagic, sizeof kMagic);
    header.version = kVersion;
    header.headerBytes = sizeof(Header);
    header.channels = image->channels;
    header.x1 = image->x1;
    header.y1 = image->y1;
    header.x2 = image->x2;
    header.y2 = image->y2;
    header.rowBytes = image->rowBytes;

    const size_t rowBytes = hasPixels(image) ? payloadRowBytes(image) : 0;
    Checksum checksum;
    for (int64_t y = image->y1; rowBytes && y < image->y2; ++y)
        checksum.add(reinterpret_cast<const unsigned char*>(image->row(y)), rowBytes);
    header.checksum = checksum.value();

    bool ok = writeAll(fd.get(), &header, sizeof header);
    // Rows are contiguous apart from their padding: gather them in chunks so
    // the kernel sees few, large writes.
    std::vector<unsigned char> chunk;
    const size_t rowsPerChunk = rowBytes ? std::max<size_t>(1, (4u << 20) / rowBytes) : 0;
    for (int64_t y = image->y1; ok && rowBytes && y < image->y2;) {
        chunk.clear();
        for (size_t r = 0; r < rowsPerChunk && y < image->y2; ++r, ++y) {
            const auto* row = reinterpret_cast<const unsigned char*>(image->row(y));
            chunk.insert(chunk.end(), row, row + rowBytes);
        }
        ok = writeAll(fd.get(), chunk.data(), chunk.size());
    }
    const std::string writeError = ok ? std::string() : systemError();
    if (!fd.close() && ok) ok = false;
    if (!ok) {
        ::unlink(path.c_str());
        return SetError(ERROR_FILE_WRITE, "WriteRAW: cannot write " + path + ": " +
                                              (writeError.empty() ? systemError() : writeError));
    }
    if (!rowBytes) return SetError(WARNING_EMPTY_IMAGE, "WriteRAW: image has no pixels");
    return ERROR_NONE;
}

int ReadRAW(const Image* image, const std::string& path) {
    if (!image) return SetError(ERROR_NULL_IMAGE, "ReadRAW: null image");
    if (hasPixels(image) && !image->pixelPtr)
        return SetError(ERROR_NULL_IMAGE, "ReadRAW: image has no pixel memory");

    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (fd.get() < 0)
        return SetError(ERROR_FILE_OPEN, "ReadRAW: cannot open " + path + ": " + systemError());

    Header header{};
    if (!readAll(fd.get(), &header, sizeof header) ||
        std::memcmp(header.magic, kMagic, sizeof kMagic) != 0 || header.version != kVersion ||
        header.headerBytes != sizeof(Header))
        return SetError(ERROR_FILE_FORMAT, "ReadRAW: " + path + " is not a raw image dump");
    if (header.channels != image->channels || header.x1 != image->x1 || header.y1 != image->y1 ||
        header.x2 != image->x2 || header.y2 != image->y2 || header.rowBytes != image->rowBytes)
        return SetError(ERROR_FILE_MISMATCH,
                        "ReadRAW: " + path + " holds a different image (channels or bounds)");

    const size_t rowBytes = hasPixels(image) ? payloadRowBytes(image) : 0;
    struct stat st {};
    const auto expected = static_cast<off_t>(sizeof(Header) + rowBytes * image->height());
    if (::fstat(fd.get(), &st) != 0 || st.st_size != expected)
        return SetError(ERROR_FILE_FORMAT, "ReadRAW: " + path + " has " +
                                               std::to_string(st.st_size) + " bytes, expected " +
                                               std::to_string(expected));
    Checksum checksum;
    for (int64_t y = image->y1; rowBytes && y < image->y2; ++y) {
        auto* row = reinterpret_cast<unsigned char*>(image->row(y));
        if (!readAll(fd.get(), row, rowBytes))
            return SetError(ERROR_FILE_READ, "ReadRAW: cannot read " + path + ": " + systemError());
        checksum.add(row, rowBytes);
    }
    if (checksum.value() != header.checksum)
        return SetError(ERROR_FILE_FORMAT, "ReadRAW: " + path + " is damaged (checksum mismatch)");
    if (!rowBytes) return SetError(WARNING_EMPTY_IMAGE, "ReadRAW: image has no pixels");
    return ERROR_NONE;
}

}  // namespace IMGLIB
