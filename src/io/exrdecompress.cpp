#include "io/exrdecompress.h"

#include <atomic>

#include "io/exrpiz.h"
#include "io/exrzip.h"

namespace TESSERA {
namespace Private {

namespace {

using Decompress = exr_result_t (*)(exr_decode_pipeline_t*);

// The core library's own routine for each compression, for the chunks the
// codecs here leave to it.
std::atomic<Decompress> s_library[EXR_COMPRESSION_LAST_TYPE];

// A chunk the codecs here expect: compressed (a chunk that did not shrink
// is stored as it is, told apart by its size alone), no deep sample table,
// and buffers the library has set up.
bool expected(const exr_decode_pipeline_t& p) {
    return p.chunk.packed_size != p.chunk.unpacked_size && !p.sample_count_table &&
           !p.packed_sample_count_table && p.packed_buffer && p.unpacked_buffer &&
           p.unpacked_alloc_size >= p.chunk.unpacked_size;
}

template <exr_compression_t Compression, Decompress Codec>
exr_result_t decompress(exr_decode_pipeline_t* pipeline) {
    return expected(*pipeline) ? Codec(pipeline) : s_library[Compression].load()(pipeline);
}

}  // namespace

void chooseDecompressor(exr_decode_pipeline_t& pipeline) {
    exr_compression_t compression = EXR_COMPRESSION_NONE;
    if (!pipeline.decompress_fn ||
        exr_get_compression(pipeline.context, pipeline.part_index, &compression) != EXR_ERR_SUCCESS)
        return;
    Decompress codec = nullptr;
    switch (compression) {
        case EXR_COMPRESSION_ZIP:
            codec = &decompress<EXR_COMPRESSION_ZIP, &inflateZipChunk>;
            break;
        case EXR_COMPRESSION_ZIPS:
            codec = &decompress<EXR_COMPRESSION_ZIPS, &inflateZipChunk>;
            break;
        case EXR_COMPRESSION_PIZ:
            if (codesPiz(pipeline.channels, pipeline.channel_count))
                codec = &decompress<EXR_COMPRESSION_PIZ, &decodePizChunk>;
            break;
        default:
            break;
    }
    if (!codec || pipeline.decompress_fn == codec) return;
    s_library[compression].store(pipeline.decompress_fn);
    pipeline.decompress_fn = codec;
}

}  // namespace Private
}  // namespace TESSERA
