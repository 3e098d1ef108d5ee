// EXR files read with OpenEXR's core library: scanline and tiled, one or
// many parts, any pixel type, decoded straight into floats.
#include <OpenEXR/openexr.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

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

class ExrReader final : public ImageReader {
public:
    ~ExrReader() override {
        if (m_context) exr_finish(&m_context);
    }
    // Empty on success; "module" when the file needs the other reader.
    std::string open(const std::string& path, int subimage) {
        exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
        init.error_handler_fn = &remember;
        exr_result_t result = exr_start_read(&m_context, path.c_str(), &init);
        if (result != EXR_ERR_SUCCESS) return describe(result);
        int parts = 0;
        exr_get_count(m_context, &parts);
        if (subimage < 0 || subimage >= parts) return "no subimage " + std::to_string(subimage);
        m_part = subimage;
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
            m_info.channelNames[slotOf(c)].assign(e.name.str, size_t(e.name.length));
        }
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
        } else {
            int32_t rows = 1;
            exr_get_scanlines_per_chunk(m_context, m_part, &rows);
            m_info.rowsPerChunk = rows;
        }
        return std::string();
    }

    const ImageFileInfo& info() const override { return m_info; }

    std::string read(const UTIL::Rect& area, float* pixels) override {
        const int64_t n = int64_t(m_info.channelNames.size());
        const int64_t pixelBytes = n * int64_t(sizeof(float)),
                      lineBytes = area.width() * pixelBytes;
        auto* out = reinterpret_cast<uint8_t*>(pixels);
        const UTIL::Rect& dw = m_info.dataWindow;
        if (m_info.tileWidth > 0) {
            for (int64_t ty = (area.ymin - dw.ymin) / m_info.tileHeight;
                 dw.ymin + ty * m_info.tileHeight < area.ymax; ++ty)
                for (int64_t tx = (area.xmin - dw.xmin) / m_info.tileWidth;
                     dw.xmin + tx * m_info.tileWidth < area.xmax; ++tx) {
                    exr_chunk_info_t chunk;
                    exr_result_t r =
                        exr_read_tile_chunk_info(m_context, m_part, int(tx), int(ty), 0, 0, &chunk);
                    if (r != EXR_ERR_SUCCESS) return describe(r);
                    const UTIL::Rect tile(dw.xmin + tx * m_info.tileWidth,
                                          dw.ymin + ty * m_info.tileHeight,
                                          dw.xmin + tx * m_info.tileWidth + chunk.width,
                                          dw.ymin + ty * m_info.tileHeight + chunk.height);
                    const std::string error = decodeInto(chunk, tile, area, out, lineBytes);
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
            const std::string error = decodeInto(chunk, rows, area, out, lineBytes);
            if (!error.empty()) return error;
            y = rows.ymax;
        }
        return std::string();
    }

private:
    // Where the file's channel c goes in an interleaved pixel. The core
    // library's fast paths for three and four interleaved half channels
    // (this version) swap the channel order, both for ascending and
    // descending addresses; channels rotated by one take the general path,
    // which is right.
    size_t slotOf(int c) const {
        return size_t(c + 1) % std::max<size_t>(1, m_info.channelNames.size());
    }

    // Decodes the chunk covering `chunkRect` into the part of `area` it
    // overlaps: in place when the chunk lies inside the area, else through
    // a buffer of its own.
    std::string decodeInto(const exr_chunk_info_t& chunk, const UTIL::Rect& chunkRect,
                           const UTIL::Rect& area, uint8_t* out, int64_t lineBytes) {
        const int64_t n = int64_t(m_info.channelNames.size()), pixelBytes = n * 4;
        const UTIL::Rect part = chunkRect.intersection(area);
        if (part == chunkRect)
            return decode(chunk,
                          out + (chunkRect.ymin - area.ymin) * lineBytes +
                              (chunkRect.xmin - area.xmin) * pixelBytes,
                          pixelBytes, lineBytes);
        std::vector<float> buffer(size_t(chunkRect.area() * n));
        const int64_t chunkLine = chunkRect.width() * pixelBytes;
        const std::string error =
            decode(chunk, reinterpret_cast<uint8_t*>(buffer.data()), pixelBytes, chunkLine);
        if (!error.empty()) return error;
        for (int64_t y = part.ymin; y < part.ymax; ++y)
            std::memcpy(out + (y - area.ymin) * lineBytes + (part.xmin - area.xmin) * pixelBytes,
                        reinterpret_cast<const uint8_t*>(buffer.data()) +
                            (y - chunkRect.ymin) * chunkLine +
                            (part.xmin - chunkRect.xmin) * pixelBytes,
                        size_t(part.width() * pixelBytes));
        return std::string();
    }

    std::string decode(const exr_chunk_info_t& chunk, uint8_t* first, int64_t pixelBytes,
                       int64_t lineBytes) {
        exr_decode_pipeline_t pipeline = EXR_DECODE_PIPELINE_INITIALIZER;
        exr_result_t r = exr_decoding_initialize(m_context, m_part, &chunk, &pipeline);
        // The pipeline's channels are the file's, in the file's order.
        for (int16_t c = 0; r == EXR_ERR_SUCCESS && c < pipeline.channel_count; ++c) {
            exr_coding_channel_info_t& channel = pipeline.channels[c];
            channel.decode_to_ptr = first + slotOf(c) * sizeof(float);
            channel.user_pixel_stride = int32_t(pixelBytes);
            channel.user_line_stride = int32_t(lineBytes);
            channel.user_data_type = EXR_PIXEL_FLOAT;
            channel.user_bytes_per_element = sizeof(float);
        }
        if (r == EXR_ERR_SUCCESS)
            r = exr_decoding_choose_default_routines(m_context, m_part, &pipeline);
        if (r == EXR_ERR_SUCCESS) r = exr_decoding_run(m_context, m_part, &pipeline);
        exr_decoding_destroy(m_context, &pipeline);
        return r == EXR_ERR_SUCCESS ? std::string() : describe(r);
    }

    exr_context_t m_context = nullptr;
    int m_part = 0;
    ImageFileInfo m_info;
};

}  // namespace

std::unique_ptr<ImageReader> openExrReader(const std::string& path, int subimage,
                                           std::string& error) {
    if (!isExr(path)) return nullptr;
    auto reader = std::make_unique<ExrReader>();
    const std::string failure = reader->open(path, subimage);
    if (failure == "module") return nullptr;
    if (!failure.empty()) {
        error = failure;
        return nullptr;
    }
    return reader;
}

}  // namespace Private
}  // namespace TESSERA
