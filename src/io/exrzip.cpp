#include "io/exrzip.h"

#include <libdeflate.h>

#include <cstring>
#include <memory>
#include <vector>

#include "io/zippredictor.h"

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

struct InflateScratch {
    struct FreeDecompressor {
        void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
    };
    std::unique_ptr<libdeflate_decompressor, FreeDecompressor> decompressor{
        libdeflate_alloc_decompressor()};
    std::vector<uint8_t> predicted;
};
thread_local InflateScratch t_inflate;

}  // namespace

exr_result_t inflateZipChunk(exr_decode_pipeline_t* pipeline) {
    const uint64_t packed = pipeline->chunk.packed_size, size = pipeline->chunk.unpacked_size;
    InflateScratch& s = t_inflate;
    if (!s.decompressor) return EXR_ERR_OUT_OF_MEMORY;
    s.predicted.resize(size);
    size_t produced = 0;
    if (libdeflate_zlib_decompress(s.decompressor.get(), pipeline->packed_buffer, packed,
                                   s.predicted.data(), size, &produced) != LIBDEFLATE_SUCCESS ||
        produced != size)
        return EXR_ERR_CORRUPT_CHUNK;
    unpredictZipBytes(s.predicted.data(), size, static_cast<uint8_t*>(pipeline->unpacked_buffer));
    return EXR_ERR_SUCCESS;
}

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
    predictZipBytes(static_cast<const uint8_t*>(pipeline->packed_buffer), size, s.predicted.data());
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
