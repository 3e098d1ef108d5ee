// Files in any format the image format module writes, written from the top
// in bands of rows as the render finishes them: a band waits only for the
// bands above it, and one thread at a time writes while the others go on
// rendering.
#include <filesystem>
#include <map>
#include <mutex>

#include "io/blockgatherer.h"
#include "io/imagefiles.h"
#include "io/outputfile.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

class ScanlineFile final : public OutputFile {
public:
    ScanlineFile(const FileOutParams& params, const OutputLayout& layout)
        : m_commit(params.path),
          m_layout(layout),
          // Bands follow the render's rows of tiles, so a tile fills part of
          // one band (two when the output does not start on a tile row).
          m_gatherer(
              layout.rect, layout.channelNames.size(), layout.rect.xmin,
              BlockGatherer::floorDiv(layout.rect.ymin, layout.tileHeight) * layout.tileHeight,
              layout.rect.width(), layout.tileHeight, false),
          m_next(m_gatherer.firstRow()) {
        std::string error;
        const bool exr = std::filesystem::path(params.path).extension() == ".exr";
        const ImageFormatModule* module = exr ? nullptr : imageFormatModule(error);
        if (exr || module) {
            ImageWriterSpec spec;
            spec.path = m_commit.temporary();
            spec.formatOf = params.path;
            spec.rect = layout.rect;
            spec.displayWindow = layout.format;
            spec.channelNames = layout.channelNames;
            spec.dataType = params.dataType;
            spec.compression = params.compression;
            spec.attributesFrom = params.attributesFrom;
            spec.views = params.views;
            for (const FileAttribute& a : params.attributes)
                if (a.isNumber)
                    spec.numberAttributes.emplace_back(a.name, a.number);
                else
                    spec.textAttributes.emplace_back(a.name, a.text);
            m_out = exr ? openExrScanlineWriter(spec, error) : module->openWriter(spec, error);
        }
        if (!m_out) {
            m_commit.fail(error);
            m_commit.commit();
            throw UTIL::ErrorException(m_commit.error());
        }
    }
    ~ScanlineFile() override { abandon(); }

    void write(const PixelPiece& piece) override {
        m_gatherer.add(piece, [this](int64_t, int64_t row, const PixelPiece& band,
                                     std::vector<float>& storage) {
            bandDone(row, band.rect, std::move(storage));
        });
    }

    void finish() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_next != m_gatherer.endRow()) m_commit.fail("the render did not deliver every tile");
        close();
        if (!m_commit.commit()) throw UTIL::ErrorException(m_commit.error());
    }

    void abandon() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_out) return;
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
            const std::string error =
                m_out->writeRows(band.rect.ymin, band.rect.ymax, band.pixels.data(), pixelBytes,
                                 pixelBytes * band.rect.width());
            lock.lock();
            ++m_next;
            if (!error.empty()) {
                m_writing = false;
                m_commit.fail(error);
                throw UTIL::ErrorException(m_commit.error());
            }
        }
        m_writing = false;
    }

    // Under m_mutex.
    void close() {
        if (!m_out) return;
        const std::string error = m_out->close();
        m_out.reset();
        if (!error.empty()) m_commit.fail(error);
    }

    FileCommit m_commit;
    const OutputLayout m_layout;
    BlockGatherer m_gatherer;
    std::mutex m_mutex;  // guards m_out's closing, m_ready, m_next, m_writing, m_commit's error
    std::unique_ptr<ImageWriter> m_out;
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
