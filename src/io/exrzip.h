// EXR's zip and zips compression done with libdeflate instead of the zlib
// OpenEXR's core library calls: the same chunk format (bytes split into
// even and odd halves, a difference predictor, a zlib stream), compressed
// four times as fast as zlib at the same level for a file within a percent
// of its size, and decompressed twice as fast. OpenEXR's own later
// releases made the same move.
#pragma once

#include <OpenEXR/openexr.h>

namespace TESSERA {
namespace Private {

/// The zip level an EXR is written at when its compression names none
/// ("zip" rather than "zip:6"), as OpenImageIO and OpenEXR write it.
constexpr int kDefaultZipLevel = 4;

/// Compresses a zip or zips chunk: the encode pipeline's compress_fn.
/// compressed_buffer is left pointing into the calling thread's own memory
/// (with compressed_alloc_size 0, so the pipeline does not free it), valid
/// until the thread's next chunk.
exr_result_t deflateExrChunk(exr_encode_pipeline_t* pipeline);

/// Decompresses a zip or zips chunk into the pipeline's unpacked buffer (a
/// decompress_fn); a damaged chunk is EXR_ERR_CORRUPT_CHUNK.
exr_result_t inflateZipChunk(exr_decode_pipeline_t* pipeline);

}  // namespace Private
}  // namespace TESSERA
