// Tiled EXR files written with OpenEXR's core library, which lets several
// threads compress tiles of one file at once: each tile is compressed on the
// render thread that delivered it, straight from the render's memory when it
// is one whole file tile. Compressed tiles are written in the file's order,
// each as soon as every tile before it is (so the bytes are the same from
// run to run and for any number of threads), through a queue that whichever
// render thread finds no one writing writes out.
#include <OpenEXR/openexr.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "io/blockgatherer.h"
#include "io/exrattributes.h"
#include "io/outputfile.h"
#include "io/writequeue.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

struct Compression {
    const char* name;
    exr_compression_t type;
};
const Compression kCompressions[] = {
    {"none", EXR_COMPRESSION_NONE}, {"rle", EXR_COMPRESSION_RLE},
    {"zips", EXR_COMPRESSION_ZIPS}, {"zip", EXR_COMPRESSION_ZIP},
    {"piz", EXR_COMPRESSION_PIZ},   {"pxr24", EXR_COMPRESSION_PXR24},
    {"b44", EXR_COMPRESSION_B44},   {"b44a", EXR_COMPRESSION_B44A},
    {"dwaa", EXR_COMPRESSION_DWAA}, {"dwab", EXR_COMPRESSION_DWAB},
};

class ExrTiledFile final : public OutputFile {
public:
    ExrTiledFile(const FileOutParams& params, const OutputLayout& layout,
                 exr_compression_t compression, int zipLevel)
        : m_commit(params.path),
          m_layout(layout),
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
        close();
        if (!m_commit.commit()) throw UTIL::ErrorException(m_commit.error());
    }

    void abandon() override {
        if (!m_context && m_fd < 0) return;
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
        if (zipLevel >= 0) init.zip_level = zipLevel;
        check(exr_start_write(&m_context, m_commit.temporary().c_str(), EXR_WRITE_FILE_DIRECTLY,
                              &init));
        {
            std::lock_guard<std::mutex> lock(s_filesMutex);
            s_files[m_context] = this;
        }
        int part = 0;
        check(exr_add_part(m_context, nullptr, EXR_STORAGE_TILED, &part));
        auto box = [](const UTIL::Rect& r) {
            return exr_attr_box2i_t{{int32_t(r.xmin), int32_t(r.ymin)},
                                    {int32_t(r.xmax - 1), int32_t(r.ymax - 1)}};
        };
        const exr_attr_box2i_t data = box(m_layout.rect);
        const exr_attr_box2i_t display = m_layout.format.isNull() ? data : box(m_layout.format);
        const exr_attr_v2f_t centre = {0.0f, 0.0f};
        check(exr_initialize_required_attr(m_context, 0, &display, &data, 1.0f, &centre, 1.0f,
                                           EXR_LINEORDER_RANDOM_Y, compression));
        const exr_pixel_type_t type = params.dataType == "float" ? EXR_PIXEL_FLOAT : EXR_PIXEL_HALF;
        for (const std::string& name : m_layout.channelNames)
            check(exr_add_channel(m_context, 0, name.c_str(), type, EXR_PERCEPTUALLY_LOGARITHMIC, 1,
                                  1));
        check(exr_set_tile_descriptor(m_context, 0, uint32_t(m_layout.tileWidth),
                                      uint32_t(m_layout.tileHeight), EXR_TILE_ONE_LEVEL,
                                      EXR_TILE_ROUND_DOWN));
        copyExrAttributes(m_context, 0, params.attributesFrom);
        if (!params.views.empty()) {
            std::vector<const char*> views;
            for (const std::string& v : params.views) views.push_back(v.c_str());
            check(exr_attr_set_string_vector(m_context, 0, "multiView", int32_t(views.size()),
                                             views.data()));
        }
        const std::string refused = setExrAttributes(m_context, 0, params.attributes);
        if (!refused.empty()) fail(refused);
        check(exr_write_header(m_context));
        const std::string error = m_writes.write(true);
        if (!error.empty()) fail(error);
    }

    // One file tile, compressed and written on this thread.
    void encode(int64_t column, int64_t row, const PixelPiece& pixels) {
        exr_chunk_info_t chunk;
        check(exr_write_tile_chunk_info(m_context, 0, int(column), int(row), 0, 0, &chunk));
        exr_encode_pipeline_t pipeline = EXR_ENCODE_PIPELINE_INITIALIZER;
        exr_result_t result = exr_encoding_initialize(m_context, 0, &chunk, &pipeline);
        for (int16_t c = 0; result == EXR_ERR_SUCCESS && c < pipeline.channel_count; ++c) {
            exr_coding_channel_info_t& channel = pipeline.channels[c];
            size_t index = 0;  // the file sorts channels by name
            while (m_layout.channelNames[index] != channel.channel_name) ++index;
            channel.encode_from_ptr = reinterpret_cast<const uint8_t*>(pixels.channels[index]);
            channel.user_pixel_stride = int32_t(pixels.pixelStride);
            channel.user_line_stride = int32_t(pixels.lineStride);
            channel.user_data_type = EXR_PIXEL_FLOAT;
            channel.user_bytes_per_element = sizeof(float);
        }
        Encoded encoded{int(column), int(row), {}};
        if (result == EXR_ERR_SUCCESS)
            result = exr_encoding_choose_default_routines(m_context, 0, &pipeline);
        if (result == EXR_ERR_SUCCESS) {
            // The bytes are kept, to go into the file in its order.
            pipeline.write_fn = &ExrTiledFile::keepBytes;
            pipeline.encoding_user_data = &encoded.bytes;
            result = exr_encoding_run(m_context, 0, &pipeline);
        }
        exr_encoding_destroy(m_context, &pipeline);
        check(result);
        writeInOrder(m_gatherer.blockIndex(column, row), std::move(encoded));
        const std::string error = m_writes.write(false);
        if (!error.empty()) fail(error);
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
    BlockGatherer m_gatherer;
    int m_fd = -1;
    // A few tiles' worth: tiles compressed while a thread writes are not
    // held up, and memory does not grow when the disk is slower than the
    // render.
    WriteQueue m_writes{size_t(16) << 20};
    exr_context_t m_context = nullptr;
    // Tiles encoded ahead of the next one in the file's order. Taken before
    // the library's own lock and m_mutex.
    std::mutex m_orderMutex;
    std::map<int64_t, Encoded> m_encoded;
    int64_t m_nextIndex = 0;
    std::mutex m_mutex;    // guards m_reason and m_commit's error
    std::string m_reason;  // the first failure in the system's or the library's words
};

std::mutex ExrTiledFile::s_filesMutex;
std::map<exr_const_context_t, ExrTiledFile*> ExrTiledFile::s_files;

}  // namespace

std::unique_ptr<OutputFile> openExrTiledFile(const FileOutParams& params,
                                             const OutputLayout& layout) {
    // "zip" or "zip:LEVEL", as OpenImageIO spells it.
    const std::string name = params.compression.substr(0, params.compression.find(':'));
    int level = -1;
    if (name.size() < params.compression.size())
        level = std::atoi(params.compression.c_str() + name.size() + 1);
    for (const Compression& c : kCompressions)
        if (name == c.name) {
            // This version of the core library has no DWA compressor, and
            // scrambles float channels in B44 blocks: OpenEXR's C++
            // library (through the scanline writer) does both right.
            if (c.type == EXR_COMPRESSION_DWAA || c.type == EXR_COMPRESSION_DWAB) return nullptr;
            if ((c.type == EXR_COMPRESSION_B44 || c.type == EXR_COMPRESSION_B44A) &&
                params.dataType == "float")
                return nullptr;
            return std::make_unique<ExrTiledFile>(params, layout, c.type, level);
        }
    std::string names;
    for (const Compression& c : kCompressions)
        names += names.empty() ? c.name : std::string(", ") + c.name;
    throw UTIL::ErrorException("cannot write '" + params.path + "': unknown compression '" +
                               params.compression + "' (" + names + ")");
}

}  // namespace Private
}  // namespace TESSERA
