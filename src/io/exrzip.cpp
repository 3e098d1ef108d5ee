#include "io/exrzip.h"

#include <libdeflate.h>

#include <cstring>
#include <memory>
#include <vector>

namespace TESSERA {
namespace Private {

namespace {

// One compressor per thread and level (libdeflate's are not shared between
// threads), and the thread's buffers, reused from chunk to chunk.
struct DeflateScratch {
    struct FreeCompressor {
        void operator()(libdeflate_compressor* c) const { libdeflate_free_compressor(c); }
    };
    std::unique_ptr<libdeflate_compressor, FreeCompressor> compressor;
    int level = 0;
    std::vector<uint8_t> predicted, compressed;

    libdeflate_compressor* compressorAt(int wanted) {
        if (!compressor || level != wanted) {
            compressor.reset(libdeflate_alloc_compressor(wanted));
            level = wanted;
        }
        return compressor.get();
    }
};
thread_local DeflateScratch t_scratch;

// The bytes as the format compresses them: the even bytes, then the odd
// ones (a half's low and high bytes apart), each byte then replaced by its
// difference from the one before it, offset by 128.
void predict(const uint8_t* raw, size_t size, uint8_t* out) {
    uint8_t* low = out;
    uint8_t* high = out + (size + 1) / 2;
    size_t i = 0;
    for (; i + 1 < size; i += 2) {
        *low++ = raw[i];
        *high++ = raw[i + 1];
    }
    if (i < size) *low = raw[i];
    uint8_t previous = out[0];
    for (size_t j = 1; j < size; ++j) {
        const uint8_t current = out[j];
        out[j] = uint8_t(current - previous + 128);
        previous = current;
    }
}

}  // namespace

exr_result_t deflateExrChunk(exr_encode_pipeline_t* pipeline) {
    int level = kDefaultZipLevel;
    if (exr_get_zip_compression_level(pipeline->context, pipeline->part_index, &level) !=
            EXR_ERR_SUCCESS ||
        level < 1)
        level = kDefaultZipLevel;
    DeflateScratch& s = t_scratch;
    libdeflate_compressor* compressor = s.compressorAt(level);
    if (!compressor) return EXR_ERR_OUT_OF_MEMORY;
    const size_t size = size_t(pipeline->packed_bytes);
    s.predicted.resize(size);
    predict(static_cast<const uint8_t*>(pipeline->packed_buffer), size, s.predicted.data());
    s.compressed.resize(libdeflate_zlib_compress_bound(compressor, size));
    size_t written = libdeflate_zlib_compress(compressor, s.predicted.data(), size,
                                              s.compressed.data(), s.compressed.size());
    // A chunk that does not shrink is stored as it is: a reader tells the
    // two apart by the size alone.
    if (written == 0 || written >= size) {
        std::memcpy(s.compressed.data(), pipeline->packed_buffer, size);
        written = size;
    }
    pipeline->compressed_buffer = s.compressed.data();
    pipeline->compressed_bytes = written;
    pipeline->compressed_alloc_size = 0;
    return EXR_ERR_SUCCESS;
}

}  // namespace Private
}  // namespace TESSERA
