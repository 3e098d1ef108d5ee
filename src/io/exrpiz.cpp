#include "io/exrpiz.h"

#include <OpenEXR/ImfHuf.h>
#include <OpenEXR/ImfWav.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "io/exrhuffman.h"

namespace TESSERA {
namespace Private {

namespace {

constexpr int kValues = 1 << 16;
constexpr int kBitmapBytes = kValues / 8;

// The thread's buffers, reused from chunk to chunk.
struct PizScratch {
    std::vector<uint16_t> planes;
    std::vector<uint16_t> table = std::vector<uint16_t>(kValues);
    std::vector<uint8_t> compressed;
};
thread_local PizScratch t_piz;

uint16_t readLE16(const uint8_t* p) {
    return uint16_t(p[0] | (p[1] << 8));
}
void writeLE16(uint8_t* p, uint16_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}

uint64_t chunkWords(const exr_coding_channel_info_t* channels, int16_t count, int64_t width,
                    int64_t height) {
    uint64_t words = 0;
    for (int16_t c = 0; c < count; ++c)
        words += uint64_t(width * height) * uint64_t(channels[c].bytes_per_element / 2);
    return words;
}

// A chunk's lines (each the channels one after the other) as planes, one a
// channel, and back. A float sample is two words.
template <bool ToPlanes>
void reorder(const exr_coding_channel_info_t* channels, int16_t count, int64_t width,
             int64_t height, uint8_t* lines, uint16_t* planes) {
    for (int64_t y = 0; y < height; ++y) {
        uint16_t* plane = planes;
        for (int16_t c = 0; c < count; ++c) {
            const int64_t lineWords = width * (channels[c].bytes_per_element / 2);
            uint16_t* row = plane + y * lineWords;
            if (ToPlanes)
                std::memcpy(row, lines, size_t(lineWords * 2));
            else
                std::memcpy(lines, row, size_t(lineWords * 2));
            lines += lineWords * 2;
            plane += lineWords * height;
        }
    }
}

// The wavelet of each channel's planes (a float's two words apart).
template <bool Encode>
void wavelets(const exr_coding_channel_info_t* channels, int16_t count, int64_t width,
              int64_t height, uint16_t* planes, uint16_t largest) {
    for (int16_t c = 0; c < count; ++c) {
        const int step = channels[c].bytes_per_element / 2;
        for (int j = 0; j < step; ++j) {
            if (Encode)
                Imf::wav2Encode(planes + j, int(width), step, int(height), int(width) * step,
                                largest);
            else
                Imf::wav2Decode(planes + j, int(width), step, int(height), int(width) * step,
                                largest);
        }
        planes += width * height * step;
    }
}

// The values the bitmap marks, in order (0 always): the table from a
// value's index back to the value. Returns the largest index.
uint16_t valuesFromBitmap(const uint8_t* bitmap, uint16_t* table) {
    int k = 0;
    for (int value = 0; value < kValues; ++value)
        if (value == 0 || (bitmap[value >> 3] & (1 << (value & 7)))) table[k++] = uint16_t(value);
    const int largest = k - 1;
    std::fill(table + k, table + kValues, uint16_t(0));
    return uint16_t(largest);
}

}  // namespace

bool codesPiz(const exr_coding_channel_info_t* channels, int16_t count) {
    if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__) return false;
    for (int16_t c = 0; c < count; ++c)
        if (channels[c].x_samples != 1 || channels[c].y_samples != 1 ||
            (channels[c].bytes_per_element != 2 && channels[c].bytes_per_element != 4))
            return false;
    return true;
}

exr_result_t decodePizChunk(exr_decode_pipeline_t* pipeline) {
    const auto* in = static_cast<const uint8_t*>(pipeline->packed_buffer);
    const uint64_t inSize = pipeline->chunk.packed_size;
    const int64_t width = pipeline->chunk.width, height = pipeline->chunk.height;
    const uint64_t words = chunkWords(pipeline->channels, pipeline->channel_count, width, height);
    if (words * 2 != pipeline->chunk.unpacked_size || words > uint64_t(INT32_MAX))
        return EXR_ERR_CORRUPT_CHUNK;

    // The bitmap of the values used, stored from its first non-zero byte to
    // its last.
    if (inSize < 4) return EXR_ERR_CORRUPT_CHUNK;
    const uint16_t firstByte = readLE16(in), lastByte = readLE16(in + 2);
    uint64_t at = 4;
    if (lastByte >= kBitmapBytes) return EXR_ERR_CORRUPT_CHUNK;
    uint8_t bitmap[kBitmapBytes] = {};
    if (firstByte <= lastByte) {
        const uint64_t n = uint64_t(lastByte - firstByte) + 1;
        if (inSize - at < n) return EXR_ERR_CORRUPT_CHUNK;
        std::memcpy(bitmap + firstByte, in + at, n);
        at += n;
    }
    PizScratch& s = t_piz;
    const uint16_t largest = valuesFromBitmap(bitmap, s.table.data());

    // The Huffman-coded words, then the wavelet of each channel's planes.
    if (inSize - at < 4) return EXR_ERR_CORRUPT_CHUNK;
    int32_t length;
    std::memcpy(&length, in + at, 4);
    at += 4;
    if (length < 0 || uint64_t(length) > inSize - at) return EXR_ERR_CORRUPT_CHUNK;
    s.planes.resize(words);
    try {
        Imf::hufUncompress(reinterpret_cast<const char*>(in + at), length, s.planes.data(),
                           int(words));
    } catch (...) {
        return EXR_ERR_CORRUPT_CHUNK;
    }
    wavelets<false>(pipeline->channels, pipeline->channel_count, width, height, s.planes.data(),
                    largest);
    for (uint16_t& word : s.planes) word = s.table[word];
    reorder<false>(pipeline->channels, pipeline->channel_count, width, height,
                   static_cast<uint8_t*>(pipeline->unpacked_buffer), s.planes.data());
    return EXR_ERR_SUCCESS;
}

exr_result_t encodePizChunk(exr_encode_pipeline_t* pipeline) {
    const int64_t width = pipeline->chunk.width, height = pipeline->chunk.height;
    const uint64_t size = pipeline->packed_bytes;
    const uint64_t words = chunkWords(pipeline->channels, pipeline->channel_count, width, height);
    if (words * 2 != size || words > uint64_t(INT32_MAX)) return EXR_ERR_INVALID_ARGUMENT;
    PizScratch& s = t_piz;
    s.planes.resize(words);
    reorder<true>(pipeline->channels, pipeline->channel_count, width, height,
                  static_cast<uint8_t*>(pipeline->packed_buffer), s.planes.data());

    // The values used, 0 always assumed, as a bitmap; the words renumbered
    // to their rank among them.
    uint8_t bitmap[kBitmapBytes] = {};
    for (uint16_t word : s.planes) bitmap[word >> 3] |= uint8_t(1 << (word & 7));
    bitmap[0] &= uint8_t(~1);
    int firstByte = kBitmapBytes - 1, lastByte = 0;
    for (int i = 0; i < kBitmapBytes; ++i)
        if (bitmap[i]) {
            firstByte = std::min(firstByte, i);
            lastByte = i;
        }
    int rank = 0;
    for (int value = 0; value < kValues; ++value)
        s.table[size_t(value)] =
            (value == 0 || (bitmap[value >> 3] & (1 << (value & 7)))) ? uint16_t(rank++) : 0;
    const uint16_t largest = uint16_t(rank - 1);
    for (uint16_t& word : s.planes) word = s.table[word];
    wavelets<true>(pipeline->channels, pipeline->channel_count, width, height, s.planes.data(),
                   largest);

    s.compressed.resize(4 + kBitmapBytes + 4 + huffmanCompressBound(words));
    uint8_t* out = s.compressed.data();
    writeLE16(out, uint16_t(firstByte));
    writeLE16(out + 2, uint16_t(lastByte));
    uint64_t at = 4;
    if (firstByte <= lastByte) {
        std::memcpy(out + at, bitmap + firstByte, size_t(lastByte - firstByte + 1));
        at += uint64_t(lastByte - firstByte + 1);
    }
    int32_t length = 0;
    try {  // nothing may be thrown through the core library
        length = int32_t(huffmanCompress(s.planes.data(), words, out + at + 4));
    } catch (...) {
        return EXR_ERR_OUT_OF_MEMORY;
    }
    std::memcpy(out + at, &length, 4);
    uint64_t written = at + 4 + uint64_t(length);
    if (written >= size) {  // a reader tells the two apart by the size alone
        std::memcpy(out, pipeline->packed_buffer, size);
        written = size;
    }
    pipeline->compressed_buffer = out;
    pipeline->compressed_bytes = written;
    pipeline->compressed_alloc_size = 0;
    return EXR_ERR_SUCCESS;
}

}  // namespace Private
}  // namespace TESSERA
