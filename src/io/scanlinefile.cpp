// Files in any format OpenImageIO writes, written from the top in bands of
// rows as the render finishes them: a band waits only for the bands above
// it, and one thread at a time writes while the others go on rendering.
#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>

#include "io/blockgatherer.h"
#include "io/outputfile.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

// A file that notices every failed write (a full disk, a file size limit)
// and from then on takes writes without doing them: the image library never
// sees the failure (some writers wait for ever after one), and the file
// reports it in the system's words.
class CheckedFile : public OIIO::Filesystem::IOFile {
public:
    explicit CheckedFile(const std::string& path) : IOFile(path, Write) {
        if (!m_file) fail();
    }
    size_t write(const void* buf, size_t size) override {
        if (!m_failed && IOFile::write(buf, size) != size) fail();
        return size;
    }
    size_t pwrite(const void* buf, size_t size, int64_t offset) override {
        if (!m_failed && IOFile::pwrite(buf, size, offset) != size) fail();
        return size;
    }
    void close() override {
        if (m_file && !m_failed && (std::fflush(m_file) != 0 || std::ferror(m_file))) fail();
        IOFile::close();
    }
    // Empty when every byte reached the file.
    const std::string& failure() const { return m_failure; }

private:
    void fail() {
        m_failed = true;
        m_failure = std::strerror(errno ? errno : EIO);
    }
    bool m_failed = false;
    std::string m_failure;
};

OIIO::TypeDesc typeOf(const FileOutParams& file) {
    std::string name = file.dataType;
    if (name.empty()) {
        const std::string ext = std::filesystem::path(file.path).extension().string();
        name = ext == ".exr" ? "half" : (ext == ".tif" || ext == ".tiff") ? "uint16" : "uint8";
    }
    if (name == "float") return OIIO::TypeDesc::FLOAT;
    if (name == "uint8") return OIIO::TypeDesc::UINT8;
    if (name == "uint16") return OIIO::TypeDesc::UINT16;
    return OIIO::TypeDesc::HALF;
}

int64_t floorTo(int64_t v, int64_t step) {
    return (v >= 0 ? v / step : -((-v + step - 1) / step)) * step;
}

class ScanlineFile final : public OutputFile {
public:
    ScanlineFile(const FileOutParams& params, const OutputLayout& layout)
        : m_commit(params.path),
          m_layout(layout),
          // Bands follow the render's rows of tiles, so a tile fills part of
          // one band (two when the output does not start on a tile row).
          m_gatherer(layout.rect, layout.channelNames.size(), layout.rect.xmin,
                     floorTo(layout.rect.ymin, layout.tileHeight), layout.rect.width(),
                     layout.tileHeight, false),
          m_next(m_gatherer.firstRow()) {
        const UTIL::Rect& r = layout.rect;
        OIIO::ImageSpec spec(int(r.width()), int(r.height()), int(layout.channelNames.size()),
                             typeOf(params));
        spec.x = spec.full_x = int(r.xmin);
        spec.y = spec.full_y = int(r.ymin);
        spec.channelnames = layout.channelNames;
        const auto alpha = std::find(layout.channelNames.begin(), layout.channelNames.end(), "A");
        spec.alpha_channel =
            alpha == layout.channelNames.end() ? -1 : int(alpha - layout.channelNames.begin());
        spec.attribute("compression", params.compression);

        m_out = OIIO::ImageOutput::create(params.path);
        if (!m_out) fail(OIIO::geterror());
        if (m_out->supports("ioproxy")) {
            m_file = std::make_unique<CheckedFile>(m_commit.temporary());
            if (!m_file->failure().empty()) fail(m_file->failure());
            m_out->set_ioproxy(m_file.get());
        }
        m_out->threads(1);  // the render's threads are the only ones
        if (!m_out->open(m_commit.temporary(), spec)) fail(m_out->geterror());
    }
    ~ScanlineFile() override { abandon(); }

    void write(const PixelPiece& piece) override {
        m_gatherer.add(piece, [this](int64_t, int64_t row, const PixelPiece& band,
                                     std::vector<float>& storage) {
            bandDone(row, band.rect, std::move(storage));
        });
    }

    void finish() override {
        if (m_next != m_gatherer.endRow()) fail("the render did not deliver every tile");
        close();
        if (!m_commit.commit()) throw UTIL::ErrorException(m_commit.error());
    }

    void abandon() override {
        if (!m_out) return;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_commit.fail("the render did not finish");
        close();
        m_commit.commit();
    }

private:
    struct Band {
        UTIL::Rect rect;
        std::vector<float> pixels;
    };

    // Queues the band; the thread that finds no one writing writes every
    // band that is next in order, then goes back to rendering.
    void bandDone(int64_t row, const UTIL::Rect& rect, std::vector<float> pixels) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_commit.error().empty()) throw UTIL::ErrorException(m_commit.error());
        m_ready[row] = Band{rect, std::move(pixels)};
        if (m_writing) return;
        m_writing = true;
        for (auto it = m_ready.find(m_next); it != m_ready.end(); it = m_ready.find(m_next)) {
            const Band band = std::move(it->second);
            m_ready.erase(it);
            lock.unlock();
            const int64_t pixelBytes = int64_t(m_layout.channelNames.size() * sizeof(float));
            const bool ok = m_out->write_scanlines(int(band.rect.ymin), int(band.rect.ymax), 0,
                                                   OIIO::TypeDesc::FLOAT, band.pixels.data(),
                                                   pixelBytes, pixelBytes * band.rect.width());
            lock.lock();
            ++m_next;
            if (!check(ok)) {
                m_writing = false;
                throw UTIL::ErrorException(m_commit.error());
            }
        }
        m_writing = false;
    }

    // Whether the library and the file took everything so far.
    bool check(bool ok) {
        if (m_file && !m_file->failure().empty()) return m_commit.fail(m_file->failure());
        if (!ok) return m_commit.fail(m_out->geterror());
        return m_commit.error().empty();
    }
    void fail(const std::string& reason) {
        m_commit.fail(reason);
        close();
        m_commit.commit();
        throw UTIL::ErrorException(m_commit.error());
    }
    void close() {
        if (m_out) {
            check(m_out->close());
            m_out.reset();
        }
        if (m_file) {
            m_file->close();
            check(true);
            m_file.reset();
        }
    }

    FileCommit m_commit;
    const OutputLayout m_layout;
    BlockGatherer m_gatherer;
    std::unique_ptr<CheckedFile> m_file;
    std::unique_ptr<OIIO::ImageOutput> m_out;
    std::mutex m_mutex;  // guards m_ready, m_next, m_writing and m_commit's error
    std::map<int64_t, Band> m_ready;
    int64_t m_next;  // the band to write next
    bool m_writing = false;
};

}  // namespace

std::unique_ptr<OutputFile> openScanlineFile(const FileOutParams& params,
                                             const OutputLayout& layout) {
    return std::make_unique<ScanlineFile>(params, layout);
}

}  // namespace Private
}  // namespace TESSERA
