// Which chunks an EXR read decompresses with this library's codecs rather
// than those of OpenEXR's core library: zip and zips with libdeflate
// (exrzip.h), piz with the C++ library's Huffman decoder (exrpiz.h).
#pragma once

#include <OpenEXR/openexr.h>

namespace TESSERA {
namespace Private {

/// Points the pipeline's decompress_fn at this library's codec for its
/// part's compression, where there is one; call after
/// exr_decoding_choose_default_routines. Chunks a codec does not expect
/// (stored as they are, deep sample tables) still go to the core library.
void chooseDecompressor(exr_decode_pipeline_t& pipeline);

}  // namespace Private
}  // namespace TESSERA
