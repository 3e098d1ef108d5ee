// EXR files read with OpenEXR's core library: scanline and tiled, one or
// many parts, any pixel type, decoded straight into the caller's pixels.
#include <OpenEXR/openexr.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "imglib/rowops.h"
#include "io/exrdecompress.h"
#include "io/imagefiles.h"

namespace TESSERA {
namespace Private {

namespace {

// The library reports a failure to a handler before returning its code;
// the words are kept for the thread's next message (in a plain buffer: a
// thread's exit runs no destructor for it).
thread_local char t_lastMessage[512];
void remember(exr_const_context_t, exr_result_t, const char* message) {
    std::snprintf(t_lastMessage, sizeof t_lastMessage, "%s", message ? message : "");
}
std::string describe(exr_result_t result) {
    std::string message =
        t_lastMessage[0] ? std::string(t_lastMessage) : exr_get_default_error_message(result);
    t_lastMessage[0] = '\0';
    return message;
}

bool isExr(const std::string& path) {
    unsigned char magic[4] = {};
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    const size_t n = std::fread(magic, 1, 4, f);
    std::fclose(f);
    return n == 4 && magic[0] == 0x76 && magic[1] == 0x2f && magic[2] == 0x31 && magic[3] == 0x01;
}

// A chunk of float channels, each line the channels one after the other,
// into pixels of all of them (in the order the layout put them): a vector
// pass per line in place of the library's own, a channel and a value at a
// time.
exr_result_t interleaveFloats(exr_decode_pipeline_t* decode) {
    const int n = decode->channel_count;
    const int64_t width = decode->chunk.width;
    uint8_t* first = decode->channels[0].decode_to_ptr;
    for (int c = 1; c < n; ++c) first = std::min(first, decode->channels[c].decode_to_ptr);
    const float* planes[4];
    const auto* line = static_cast<const float*>(decode->unpacked_buffer);
    for (int y = 0; y < decode->chunk.height; ++y, line += n * width) {
        for (int c = 0; c < n; ++c)
            planes[(decode->channels[c].decode_to_ptr - first) / sizeof(float)] = line + c * width;
        IMGLIB::RowInterleave(
            reinterpret_cast<float*>(first + y * int64_t(decode->channels[0].user_line_stride)),
            planes, size_t(n), size_t(width));
    }
    return EXR_ERR_SUCCESS;
}

// Whether interleaveFloats serves: three or four float channels, all read,
// filling whole pixels of floats.
bool interleavesFloats(const exr_decode_pipeline_t& pipeline, const PixelLayout& layout) {
    const int n = pipeline.channel_count;
    if (layout.halves || (n != 3 && n != 4) || layout.pixelBytes != n * int64_t(sizeof(float)))
        return false;
    for (int c = 0; c < n; ++c)
        if (pipeline.channels[c].data_type != EXR_PIXEL_FLOAT || layout.offset[size_t(c)] < 0)
            return false;
    return true;
}

class ExrReader final : public ImageReader {
public:
    ~ExrReader() override {
        if (m_context) exr_finish(&m_context);
    }
    // Empty on success; "module" when the file needs the other reader.
    std::string open(const std::string& path, int subimage, int level) {
        exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
        init.error_handler_fn = &remember;
        exr_result_t result = exr_start_read(&m_context, path.c_str(), &init);
        if (result != EXR_ERR_SUCCESS) return describe(result);
        int parts = 0;
        exr_get_count(m_context, &parts);
        if (subimage < 0 || subimage >= parts) return "no subimage " + std::to_string(subimage);
        m_part = subimage;
        const std::string implausible = checkDeclaredSizes(path);
        if (!implausible.empty()) return implausible;
        readViews(parts);
        exr_storage_t storage;
        exr_get_storage(m_context, m_part, &storage);
        if (storage != EXR_STORAGE_SCANLINE && storage != EXR_STORAGE_TILED) return "module";
        const exr_attr_chlist_t* channels = nullptr;
        if (exr_get_channels(m_context, m_part, &channels) != EXR_ERR_SUCCESS || !channels)
            return describe(EXR_ERR_MISSING_REQ_ATTR);
        m_info.channelNames.resize(size_t(channels->num_channels));
        m_info.halfChannels = channels->num_channels > 0;
        for (int c = 0; c < channels->num_channels; ++c) {
            const exr_attr_chlist_entry_t& e = channels->entries[c];
            if (e.x_sampling != 1 || e.y_sampling != 1) return "module";
            if (e.pixel_type != EXR_PIXEL_HALF) m_info.halfChannels = false;
            m_info.channelNames[size_t(c)].assign(e.name.str, size_t(e.name.length));
        }
        // Luminance-chroma files: the module rebuilds their RGB.
        const auto& names = m_info.channelNames;
        if (std::find(names.begin(), names.end(), "RY") != names.end() &&
            std::find(names.begin(), names.end(), "BY") != names.end())
            return "module";
        // The core library of OpenEXR 3.1 has no DWA decoder, and scrambles
        // the float channels of B44 files; OpenEXR's C++ library, behind
        // OpenImageIO, reads both.
        exr_compression_t compression = EXR_COMPRESSION_NONE;
        exr_get_compression(m_context, m_part, &compression);
        if (compression == EXR_COMPRESSION_DWAA || compression == EXR_COMPRESSION_DWAB ||
            ((compression == EXR_COMPRESSION_B44 || compression == EXR_COMPRESSION_B44A) &&
             !m_info.halfChannels))
            return "module";
        exr_attr_box2i_t data, display;
        exr_get_data_window(m_context, m_part, &data);
        exr_get_display_window(m_context, m_part, &display);
        m_info.dataWindow =
            UTIL::Rect(data.min.x, data.min.y, int64_t(data.max.x) + 1, int64_t(data.max.y) + 1);
        m_info.displayWindow = UTIL::Rect(display.min.x, display.min.y, int64_t(display.max.x) + 1,
                                          int64_t(display.max.y) + 1);
        if (storage == EXR_STORAGE_TILED) {
            uint32_t w = 0, h = 0;
            exr_tile_level_mode_t levels;
            exr_tile_round_mode_t round;
            exr_get_tile_descriptor(m_context, m_part, &w, &h, &levels, &round);
            m_info.tileWidth = w;
            m_info.tileHeight = h;
            if (level != 0) {
                // A mip level (of a rip-mapped file, the one as much
                // reduced across as down): its own data window from the
                // same corner, the display window scaled with it.
                int32_t across = 1, down = 1;
                if (levels != EXR_TILE_ONE_LEVEL)
                    exr_get_tile_levels(m_context, m_part, &across, &down);
                const int32_t count = std::min(across, down);
                if (level < 0 || level >= count)
                    return "it has no mip level " + std::to_string(level) + " (it has " +
                           std::to_string(count) + (count == 1 ? " level)" : " levels)");
                int32_t lw = 0, lh = 0;
                exr_get_level_sizes(m_context, m_part, level, level, &lw, &lh);
                const UTIL::Rect full = m_info.dataWindow, shown = m_info.displayWindow;
                const double sx = double(lw) / double(full.width()),
                             sy = double(lh) / double(full.height());
                auto scaled = [](int64_t c, int64_t origin, double s) {
                    return origin + int64_t(std::llround(double(c - origin) * s));
                };
                m_info.dataWindow =
                    UTIL::Rect(full.xmin, full.ymin, full.xmin + lw, full.ymin + lh);
                m_info.displayWindow = UTIL::Rect(
                    scaled(shown.xmin, full.xmin, sx), scaled(shown.ymin, full.ymin, sy),
                    scaled(shown.xmax, full.xmin, sx), scaled(shown.ymax, full.ymin, sy));
                m_level = level;
            }
        } else {
            if (level != 0)
                return "it has no mip level " + std::to_string(level) + " (it is in scanlines)";
            int32_t rows = 1;
            exr_get_scanlines_per_chunk(m_context, m_part, &rows);
            m_info.rowsPerChunk = rows;
        }
        return std::string();
    }

    const ImageFileInfo& info() const override { return m_info; }
    ImageFileInfo& header() { return m_info; }

    std::string read(const UTIL::Rect& area, const PixelLayout& layout, uint8_t* first,
                     int64_t lineBytes) override {
        const UTIL::Rect& dw = m_info.dataWindow;
        if (m_info.tileWidth > 0) {
            for (int64_t ty = (area.ymin - dw.ymin) / m_info.tileHeight;
                 dw.ymin + ty * m_info.tileHeight < area.ymax; ++ty)
                for (int64_t tx = (area.xmin - dw.xmin) / m_info.tileWidth;
                     dw.xmin + tx * m_info.tileWidth < area.xmax; ++tx) {
                    exr_chunk_info_t chunk;
                    exr_result_t r = exr_read_tile_chunk_info(m_context, m_part, int(tx), int(ty),
                                                              m_level, m_level, &chunk);
                    if (r != EXR_ERR_SUCCESS) return describe(r);
                    const UTIL::Rect tile(dw.xmin + tx * m_info.tileWidth,
                                          dw.ymin + ty * m_info.tileHeight,
                                          dw.xmin + tx * m_info.tileWidth + chunk.width,
                                          dw.ymin + ty * m_info.tileHeight + chunk.height);
                    const std::string error =
                        decodeInto(chunk, tile, area, layout, first, lineBytes);
                    if (!error.empty()) return error;
                }
            return std::string();
        }
        for (int64_t y = area.ymin; y < area.ymax;) {
            exr_chunk_info_t chunk;
            exr_result_t r = exr_read_scanline_chunk_info(m_context, m_part, int(y), &chunk);
            if (r != EXR_ERR_SUCCESS) return describe(r);
            const UTIL::Rect rows(dw.xmin, chunk.start_y, dw.xmax,
                                  int64_t(chunk.start_y) + chunk.height);
            const std::string error = decodeInto(chunk, rows, area, layout, first, lineBytes);
            if (!error.empty()) return error;
            y = rows.ymax;
        }
        return std::string();
    }

private:
    // What the header declares, against what the file could hold: readers
    // (the core library's, OpenEXR's deep sample counts, OpenImageIO's)
    // trust a header and would allocate, or loop over, what it says. Every
    // chunk has an offset of 8 bytes and a header of at least 8; no
    // compression packs a pixel's channels (a deep pixel's 4-byte count)
    // more than 100,000 to 1.
    std::string checkDeclaredSizes(const std::string& path) const {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0) return std::strerror(errno);
        const double bytes = double(status.st_size);
        int parts = 0;
        exr_get_count(m_context, &parts);
        double chunks = 0, pixelBytes = 0;
        for (int p = 0; p < parts; ++p) {
            int32_t count = 0;
            if (exr_get_chunk_count(m_context, p, &count) != EXR_ERR_SUCCESS || count < 0)
                return "its header declares no valid chunk table";
            chunks += count;
            exr_attr_box2i_t data;
            exr_get_data_window(m_context, p, &data);
            exr_storage_t storage;
            exr_get_storage(m_context, p, &storage);
            const bool deep =
                storage == EXR_STORAGE_DEEP_SCANLINE || storage == EXR_STORAGE_DEEP_TILED;
            double channelBytes = 0;
            const exr_attr_chlist_t* channels = nullptr;
            if (!deep && exr_get_channels(m_context, p, &channels) == EXR_ERR_SUCCESS && channels)
                for (int c = 0; c < channels->num_channels; ++c) {
                    const exr_attr_chlist_entry_t& e = channels->entries[c];
                    const double samples = std::max(1.0, double(e.x_sampling) * e.y_sampling);
                    channelBytes += (e.pixel_type == EXR_PIXEL_HALF ? 2 : 4) / samples;
                }
            pixelBytes += (double(data.max.x) - data.min.x + 1) *
                          (double(data.max.y) - data.min.y + 1) *
                          (deep ? 4 : std::max(channelBytes, 2.0));
        }
        if (chunks * 16 > bytes || pixelBytes > bytes * 1e5)
            return "its header declares more than its " + std::to_string(status.st_size) +
                   " bytes could hold (" + std::to_string(int64_t(chunks)) + " chunks)";
        return {};
    }

    // The views of a multi-view part and of every part of the file.
    void readViews(int parts) {
        int32_t count = 0;
        if (exr_attr_get_string_vector(m_context, m_part, "multiView", &count, nullptr) ==
                EXR_ERR_SUCCESS &&
            count > 0) {
            std::vector<const char*> views(size_t(count), nullptr);
            if (exr_attr_get_string_vector(m_context, m_part, "multiView", &count, views.data()) ==
                EXR_ERR_SUCCESS)
                for (const char* view : views) m_info.views.emplace_back(view ? view : "");
        }
        if (parts < 2) return;
        for (int p = 0; p < parts; ++p) {
            const char* view = nullptr;
            int32_t length = 0;
            if (exr_attr_get_string(m_context, p, "view", &length, &view) != EXR_ERR_SUCCESS)
                view = nullptr;
            m_info.partViews.emplace_back(view ? std::string(view, size_t(length)) : "");
        }
    }

    // Decodes the chunk covering `chunkRect` into the part of `area` it
    // overlaps: in place when the chunk lies inside the area, else through
    // a buffer of its own.
    std::string decodeInto(const exr_chunk_info_t& chunk, const UTIL::Rect& chunkRect,
                           const UTIL::Rect& area, const PixelLayout& layout, uint8_t* first,
                           int64_t lineBytes) {
        const int64_t pixelBytes = layout.pixelBytes;
        const UTIL::Rect part = chunkRect.intersection(area);
        if (part == chunkRect)
            return decode(chunk, layout,
                          first + (chunkRect.ymin - area.ymin) * lineBytes +
                              (chunkRect.xmin - area.xmin) * pixelBytes,
                          lineBytes);
        const int64_t chunkLine = chunkRect.width() * pixelBytes;
        std::vector<uint8_t> buffer(size_t(chunkRect.height() * chunkLine));
        const std::string error = decode(chunk, layout, buffer.data(), chunkLine);
        if (!error.empty()) return error;
        for (int64_t y = part.ymin; y < part.ymax; ++y)
            std::memcpy(first + (y - area.ymin) * lineBytes + (part.xmin - area.xmin) * pixelBytes,
                        buffer.data() + (y - chunkRect.ymin) * chunkLine +
                            (part.xmin - chunkRect.xmin) * pixelBytes,
                        size_t(part.width() * pixelBytes));
        return std::string();
    }

    std::string decode(const exr_chunk_info_t& chunk, const PixelLayout& layout, uint8_t* first,
                       int64_t lineBytes) {
        exr_decode_pipeline_t pipeline{};  // all zero, as the library asks
        exr_result_t r = exr_decoding_initialize(m_context, m_part, &chunk, &pipeline);
        // The pipeline's channels are the file's, in the file's order.
        for (int16_t c = 0; r == EXR_ERR_SUCCESS && c < pipeline.channel_count; ++c) {
            exr_coding_channel_info_t& channel = pipeline.channels[c];
            const int offset = layout.offset[size_t(c)];
            channel.decode_to_ptr = offset < 0 ? nullptr : first + offset;
            channel.user_pixel_stride = int32_t(layout.pixelBytes);
            channel.user_line_stride = int32_t(lineBytes);
            channel.user_data_type = layout.halves ? EXR_PIXEL_HALF : EXR_PIXEL_FLOAT;
            channel.user_bytes_per_element = int16_t(layout.elementBytes());
        }
        if (r == EXR_ERR_SUCCESS)
            r = exr_decoding_choose_default_routines(m_context, m_part, &pipeline);
        if (r == EXR_ERR_SUCCESS) chooseDecompressor(pipeline);
        if (r == EXR_ERR_SUCCESS && interleavesFloats(pipeline, layout))
            pipeline.unpack_and_convert_fn = &interleaveFloats;
        if (r == EXR_ERR_SUCCESS) r = exr_decoding_run(m_context, m_part, &pipeline);
        exr_decoding_destroy(m_context, &pipeline);
        return r == EXR_ERR_SUCCESS ? std::string() : describe(r);
    }

    exr_context_t m_context = nullptr;
    int m_part = 0;
    int m_level = 0;
    ImageFileInfo m_info;
};

}  // namespace

std::unique_ptr<ImageReader> openExrReader(const std::string& path, int subimage, int level,
                                           std::string& error, ImageFileInfo* header) {
    if (!isExr(path)) return nullptr;
    auto reader = std::make_unique<ExrReader>();
    const std::string failure = reader->open(path, subimage, level);
    if (failure == "module") {
        if (header) *header = reader->header();
        return nullptr;
    }
    if (!failure.empty()) {
        error = failure;
        return nullptr;
    }
    return reader;
}

}  // namespace Private
}  // namespace TESSERA
