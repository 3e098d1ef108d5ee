// EXR's piz chunks coded here rather than by OpenEXR's core library, which
// takes three times as long to decode them: decoded with the table-driven
// Huffman decoder and the wavelet of OpenEXR's C++ library, encoded with its
// wavelet and this library's Huffman coder (exrhuffman.h). The chunk format
// is OpenEXR's: the bitmap of the 16-bit values used, then each channel's
// planes of words, numbered through the bitmap, wavelet-coded and
// Huffman-coded.
#pragma once

#include <OpenEXR/openexr.h>

namespace TESSERA {
namespace Private {

/// Whether decodePizChunk and encodePizChunk serve a pipeline of these
/// channels: none subsampled, on a little-endian machine.
bool codesPiz(const exr_coding_channel_info_t* channels, int16_t count);

/// Decompresses a piz chunk into the pipeline's unpacked buffer (a
/// decompress_fn); a damaged chunk is EXR_ERR_CORRUPT_CHUNK.
exr_result_t decodePizChunk(exr_decode_pipeline_t* pipeline);

/// Compresses a chunk as piz (a compress_fn). compressed_buffer is left
/// pointing into the calling thread's own memory (with
/// compressed_alloc_size 0, so the pipeline does not free it), valid until
/// the thread's next chunk; a chunk that does not shrink is stored as it is.
exr_result_t encodePizChunk(exr_encode_pipeline_t* pipeline);

}  // namespace Private
}  // namespace TESSERA
