// Tiled EXR files written with OpenEXR's core library, which lets several
// threads compress tiles of one file at once: each tile is compressed on the
// render thread that delivered it, straight from the render's memory when it
// is one whole file tile. Compressed tiles are written in the file's order,
// each as soon as every tile before it is (so the bytes are the same from
// run to run and for any number of threads), through a queue that whichever
// render thread finds no one writing writes out. A file of several parts
// (one per layer) writes its first part so; the core library takes a part's
// tiles only once the parts before it are complete, so the other parts'
// tiles wait, compressed, in a spool file beside it until the end.
#include <OpenEXR/openexr.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "io/blockgatherer.h"
#include "io/exrattributes.h"
#include "io/exrcompression.h"
#include "io/exrparts.h"
#include "io/exrpiz.h"
#include "io/exrzip.h"
#include "io/outputfile.h"
#include "io/writequeue.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

class ExrTiledFile final : public OutputFile {
public:
    ExrTiledFile(const FileOutParams& params, const OutputLayout& layout,
                 exr_compression_t compression, int zipLevel)
        : m_commit(params.path),
          m_layout(layout),
          m_parts(exrParts(layout.channelNames, params.views, params.parts)),
          m_gatherer(layout.rect, layout.channelNames.size(), layout.rect.xmin, layout.rect.ymin,
                     layout.tileWidth, layout.tileHeight, true) {
        try {
            open(params, compression, zipLevel);
        } catch (...) {
            abandon();
            throw;
        }
    }
    ~ExrTiledFile() override { abandon(); }
    void write(const PixelPiece& piece) override {
        m_gatherer.add(piece, [this](int64_t column, int64_t row, const PixelPiece& pixels,
                                     std::vector<float>&) { encode(column, row, pixels); });
    }

    void finish() override {
        if (m_gatherer.pending() != 0) fail("the render did not deliver every tile");
        writeSpooledParts();
        close();
        if (!m_commit.commit()) throw UTIL::ErrorException(m_commit.error());
    }

    void abandon() override {
        if (!m_context && m_fd < 0 && m_spoolFd < 0 && m_encoders.empty()) return;
        fail("the render did not finish", false);
        close();
        m_commit.commit();
    }

private:
    void open(const FileOutParams& params, exr_compression_t compression, int zipLevel) {
        m_fd = ::open(m_commit.temporary().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (m_fd < 0) fail(std::strerror(errno));
        m_writes.setFile(m_fd);
        exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
        init.user_data = this;
        init.write_fn = &ExrTiledFile::writeBytes;
        init.error_handler_fn = &ExrTiledFile::report;
        m_compression = compression;
        init.zip_level = zipLevel;
        check(exr_start_write(&m_context, m_commit.temporary().c_str(), EXR_WRITE_FILE_DIRECTLY,
                              &init));
        {
            std::lock_guard<std::mutex> lock(s_filesMutex);
            s_files[m_context] = this;
        }
        for (const ExrPart& p : m_parts) {
            const int part = describePart(m_context, p, params, compression);
            copyExrAttributes(m_context, part, params.attributesFrom);
            if (!p.view.empty())
                check(exr_attr_set_string(m_context, part, "view", p.view.c_str()));
            else if (!params.views.empty()) {
                std::vector<const char*> views;
                for (const std::string& v : params.views) views.push_back(v.c_str());
                check(exr_attr_set_string_vector(m_context, part, "multiView",
                                                 int32_t(views.size()), views.data()));
            }
            const std::string refused = setExrAttributes(m_context, part, params.attributes);
            if (!refused.empty()) fail(refused);
        }
        // The library compresses a part's tiles only once the parts before
        // it are written: the other parts are compressed by contexts of
        // their own, each holding just that part, whose files go nowhere.
        for (size_t p = 1; p < m_parts.size(); ++p) {
            exr_context_initializer_t alone = init;
            alone.write_fn = &ExrTiledFile::discardBytes;
            exr_context_t encoder = nullptr;
            check(exr_start_write(&encoder, m_commit.temporary().c_str(), EXR_WRITE_FILE_DIRECTLY,
                                  &alone));
            m_encoders.push_back(encoder);
            {
                std::lock_guard<std::mutex> lock(s_filesMutex);
                s_files[encoder] = this;
            }
            describePart(encoder, m_parts[p], params, compression);
            check(exr_write_header(encoder));
        }
        if (m_parts.size() > 1) openSpool();
        check(exr_write_header(m_context));
        const std::string error = m_writes.write(true);
        if (!error.empty()) fail(error);
    }

    // Adds a part with the file's windows, channels and tiles; its index.
    int describePart(exr_context_t context, const ExrPart& p, const FileOutParams& params,
                     exr_compression_t compression) {
        auto box = [](const UTIL::Rect& r) {
            return exr_attr_box2i_t{{int32_t(r.xmin), int32_t(r.ymin)},
                                    {int32_t(r.xmax - 1), int32_t(r.ymax - 1)}};
        };
        const exr_attr_box2i_t data = box(m_layout.rect);
        const exr_attr_box2i_t display = m_layout.format.isNull() ? data : box(m_layout.format);
        const exr_attr_v2f_t centre = {0.0f, 0.0f};
        const exr_pixel_type_t type = params.dataType == "float" ? EXR_PIXEL_FLOAT : EXR_PIXEL_HALF;
        int part = 0;
        check(exr_add_part(context, p.name.empty() ? nullptr : p.name.c_str(), EXR_STORAGE_TILED,
                           &part));
        check(exr_initialize_required_attr(context, part, &display, &data, 1.0f, &centre, 1.0f,
                                           EXR_LINEORDER_RANDOM_Y, compression));
        for (const std::string& name : p.fileNames)
            check(exr_add_channel(context, part, name.c_str(), type, EXR_PERCEPTUALLY_LOGARITHMIC,
                                  1, 1));
        check(exr_set_tile_descriptor(context, part, uint32_t(m_layout.tileWidth),
                                      uint32_t(m_layout.tileHeight), EXR_TILE_ONE_LEVEL,
                                      EXR_TILE_ROUND_DOWN));
        return part;
    }

    // One file tile, compressed (in each part) and written on this thread.
    void encode(int64_t column, int64_t row, const PixelPiece& pixels) {
        const int64_t index = m_gatherer.blockIndex(column, row);
        for (size_t part = 0; part < m_parts.size(); ++part) {
            Encoded encoded{int(column), int(row), encodeTile(part, column, row, pixels)};
            if (part == 0)
                writeInOrder(index, std::move(encoded));
            else
                spool(int(part), index, encoded);
        }
        const std::string error = m_writes.write(false);
        if (!error.empty()) fail(error);
    }

    std::vector<uint8_t> encodeTile(size_t partIndex, int64_t column, int64_t row,
                                    const PixelPiece& pixels) {
        const ExrPart& p = m_parts[partIndex];
        // Part 0 of its own encoder, after the first.
        const exr_context_t context = partIndex == 0 ? m_context : m_encoders[partIndex - 1];
        const int part = 0;
        exr_chunk_info_t chunk;
        check(exr_write_tile_chunk_info(context, part, int(column), int(row), 0, 0, &chunk));
        exr_encode_pipeline_t pipeline{};  // all zero, as the library asks
        exr_result_t result = exr_encoding_initialize(context, part, &chunk, &pipeline);
        for (int16_t c = 0; result == EXR_ERR_SUCCESS && c < pipeline.channel_count; ++c) {
            exr_coding_channel_info_t& channel = pipeline.channels[c];
            size_t index = 0;  // the file sorts channels by name
            while (p.fileNames[index] != channel.channel_name) ++index;
            channel.encode_from_ptr =
                reinterpret_cast<const uint8_t*>(pixels.channels[p.channels[index]]);
            channel.user_pixel_stride = int32_t(pixels.pixelStride);
            channel.user_line_stride = int32_t(pixels.lineStride);
            channel.user_data_type = EXR_PIXEL_FLOAT;
            channel.user_bytes_per_element = sizeof(float);
        }
        std::vector<uint8_t> bytes;
        if (result == EXR_ERR_SUCCESS)
            result = exr_encoding_choose_default_routines(context, part, &pipeline);
        if (m_compression == EXR_COMPRESSION_ZIP || m_compression == EXR_COMPRESSION_ZIPS)
            pipeline.compress_fn = &deflateExrChunk;
        if (m_compression == EXR_COMPRESSION_PIZ &&
            codesPiz(pipeline.channels, pipeline.channel_count))
            pipeline.compress_fn = &encodePizChunk;
        if (result == EXR_ERR_SUCCESS) {
            // The bytes are kept, to go into the file in its order.
            pipeline.write_fn = &ExrTiledFile::keepBytes;
            pipeline.encoding_user_data = &bytes;
            result = exr_encoding_run(context, part, &pipeline);
        }
        exr_encoding_destroy(context, &pipeline);
        check(result);
        return bytes;
    }

    struct Encoded {
        int column, row;
        std::vector<uint8_t> bytes;
    };
    static exr_result_t keepBytes(exr_encode_pipeline_t* pipeline) {
        const bool compressed = pipeline->compressed_buffer && pipeline->compressed_bytes > 0;
        const auto* bytes = static_cast<const uint8_t*>(compressed ? pipeline->compressed_buffer
                                                                   : pipeline->packed_buffer);
        const size_t size =
            size_t(compressed ? pipeline->compressed_bytes : pipeline->packed_bytes);
        static_cast<std::vector<uint8_t>*>(pipeline->encoding_user_data)
            ->assign(bytes, bytes + size);
        return EXR_ERR_SUCCESS;
    }
    // Tile `index` (in the file's order) is encoded: it and every tile after
    // it that waited for it go to the file.
    void writeInOrder(int64_t index, Encoded encoded) {
        std::lock_guard<std::mutex> lock(m_orderMutex);
        m_encoded.emplace(index, std::move(encoded));
        for (auto next = m_encoded.find(m_nextIndex); next != m_encoded.end();
             next = m_encoded.find(m_nextIndex)) {
            const Encoded& e = next->second;
            check(exr_write_tile_chunk(m_context, 0, e.column, e.row, 0, 0, e.bytes.data(),
                                       e.bytes.size()));
            m_encoded.erase(next);
            ++m_nextIndex;
        }
    }

    // A tile of a part after the first, kept in the spool file (unlinked
    // once open, so it goes with the process) until the parts before it are
    // written.
    void openSpool() {
        const std::string path = m_commit.temporary() + ".parts";
        m_spoolFd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (m_spoolFd < 0) fail(std::strerror(errno));
        ::unlink(path.c_str());
    }
    void spool(int part, int64_t index, const Encoded& encoded) {
        std::lock_guard<std::mutex> lock(m_spoolMutex);
        const Spooled place{encoded.column, encoded.row, m_spoolEnd, encoded.bytes.size()};
        size_t done = 0;
        while (done < encoded.bytes.size()) {
            const ssize_t n = ::pwrite(m_spoolFd, encoded.bytes.data() + done,
                                       encoded.bytes.size() - done, off_t(m_spoolEnd + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) fail(std::strerror(n < 0 ? errno : ENOSPC));
            done += size_t(n);
        }
        m_spoolEnd += done;
        m_spooled.emplace(std::make_pair(part, index), place);
    }
    // Every render thread is done: the spooled parts go to the file, in order.
    void writeSpooledParts() {
        std::vector<uint8_t> bytes;
        for (const auto& [key, place] : m_spooled) {
            bytes.resize(place.size);
            size_t done = 0;
            while (done < place.size) {
                const ssize_t n = ::pread(m_spoolFd, bytes.data() + done, place.size - done,
                                          off_t(place.offset + done));
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) fail(n < 0 ? std::strerror(errno) : "the spool file was cut short");
                done += size_t(n);
            }
            check(exr_write_tile_chunk(m_context, key.first, place.column, place.row, 0, 0,
                                       bytes.data(), bytes.size()));
            const std::string error = m_writes.write(false);
            if (!error.empty()) fail(error);
        }
    }

    // Throws with the first failure's words when `result` is one.
    void check(exr_result_t result) {
        if (result != EXR_ERR_SUCCESS) fail(exr_get_default_error_message(result));
    }
    void fail(const std::string& reason, bool raise = true) {
        std::string error;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // The system's or the library's own words, when they came first.
            m_commit.fail(m_reason.empty() ? reason : m_reason);
            error = m_commit.error();
        }
        if (raise) throw UTIL::ErrorException(error);
    }

    void close() {
        for (exr_context_t encoder : m_encoders) {
            exr_finish(&encoder);  // its file goes nowhere: what it says does not matter
            std::lock_guard<std::mutex> lock(s_filesMutex);
            s_files.erase(encoder);
        }
        m_encoders.clear();
        if (m_context) {
            const exr_context_t context = m_context;
            const exr_result_t result = exr_finish(&m_context);
            m_context = nullptr;
            {
                std::lock_guard<std::mutex> lock(s_filesMutex);
                auto found = s_files.find(context);
                if (found != s_files.end() && found->second == this) s_files.erase(found);
            }
            if (result != EXR_ERR_SUCCESS) fail(exr_get_default_error_message(result), false);
        }
        const std::string error = m_writes.write(true);
        if (!error.empty()) fail(error, false);
        if (m_fd >= 0 && ::close(m_fd) != 0) fail(std::strerror(errno), false);
        m_fd = -1;
        if (m_spoolFd >= 0) ::close(m_spoolFd);
        m_spoolFd = -1;
    }

    static int64_t discardBytes(exr_const_context_t, void*, const void*, uint64_t size, uint64_t,
                                exr_stream_error_func_ptr_t) {
        return int64_t(size);
    }
    static int64_t writeBytes(exr_const_context_t, void* user, const void* buffer, uint64_t size,
                              uint64_t offset, exr_stream_error_func_ptr_t) {
        auto* self = static_cast<ExrTiledFile*>(user);
        // Under the library's lock, which no write should hold up.
        const std::string error = self->m_writes.add(offset, buffer, size_t(size));
        if (error.empty()) return int64_t(size);
        self->remember(error);
        return -1;
    }
    // The library reports while it holds the context's lock, so the file is
    // found through a table of our own, not by asking the library.
    static void report(exr_const_context_t context, exr_result_t, const char* message) {
        std::lock_guard<std::mutex> lock(s_filesMutex);
        auto found = s_files.find(context);
        if (found != s_files.end()) found->second->remember(message ? message : "");
    }
    static std::mutex s_filesMutex;  // guards s_files; taken inside the library's lock
    static std::map<exr_const_context_t, ExrTiledFile*> s_files;
    void remember(const std::string& reason) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_reason.empty()) m_reason = reason;
    }

    FileCommit m_commit;
    const OutputLayout m_layout;
    const std::vector<ExrPart> m_parts;
    BlockGatherer m_gatherer;
    int m_fd = -1;
    // A few tiles' worth: tiles compressed while a thread writes are not
    // held up, and memory does not grow when the disk is slower than the
    // render.
    WriteQueue m_writes{size_t(16) << 20};
    exr_context_t m_context = nullptr;
    exr_compression_t m_compression = EXR_COMPRESSION_NONE;
    std::vector<exr_context_t> m_encoders;  // for the parts after the first
    // Tiles encoded ahead of the next one in the file's order. Taken before
    // the library's own lock and m_mutex.
    std::mutex m_orderMutex;
    std::map<int64_t, Encoded> m_encoded;
    int64_t m_nextIndex = 0;
    // The tiles of the parts after the first, by part and place in the
    // file's order. m_spoolMutex is taken before m_mutex.
    struct Spooled {
        int column, row;
        uint64_t offset;
        size_t size;
    };
    int m_spoolFd = -1;
    std::mutex m_spoolMutex;  // guards the three below
    uint64_t m_spoolEnd = 0;
    std::map<std::pair<int, int64_t>, Spooled> m_spooled;
    std::mutex m_mutex;    // guards m_reason and m_commit's error
    std::string m_reason;  // the first failure in the system's or the library's words
};

std::mutex ExrTiledFile::s_filesMutex;
std::map<exr_const_context_t, ExrTiledFile*> ExrTiledFile::s_files;

}  // namespace

std::unique_ptr<OutputFile> openExrTiledFile(const FileOutParams& params,
                                             const OutputLayout& layout) {
    const ExrCompression c = parseExrCompression(params.path, params.compression);
    // This version of the core library has no DWA compressor, and
    // scrambles float channels in B44 blocks: OpenEXR's C++ library
    // (through the scanline writer) does both right.
    const bool scanlineOnly = c.type == EXR_COMPRESSION_DWAA || c.type == EXR_COMPRESSION_DWAB ||
                              ((c.type == EXR_COMPRESSION_B44 || c.type == EXR_COMPRESSION_B44A) &&
                               params.dataType == "float");
    if (scanlineOnly && params.parts)
        throw UTIL::ErrorException(
            "cannot write '" + params.path + "': one part per layer cannot be written with " +
            params.compression + " compression of " +
            (params.dataType.empty() ? "half" : params.dataType) + " channels");
    if (scanlineOnly) return nullptr;
    return std::make_unique<ExrTiledFile>(params, layout, c.type, c.zipLevel);
}

}  // namespace Private
}  // namespace TESSERA
