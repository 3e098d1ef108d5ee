// The byte predictor of EXR's zip and zips chunks, both ways: the bytes of
// a chunk are split into even and odd halves (a half's low and high bytes
// apart), and each is replaced by its difference from the one before it,
// plus 128. Vectorized for the machine's instruction set (chosen at run
// time): undoing it is a running sum, the slowest step of reading a chunk.
#pragma once

#include <cstddef>
#include <cstdint>

namespace TESSERA {
namespace Private {

/// `raw` as zip compresses it, into `out` (both `size` bytes).
void predictZipBytes(const uint8_t* raw, size_t size, uint8_t* out);
/// predictZipBytes undone: `predicted` (changed in place) into `raw`.
void unpredictZipBytes(uint8_t* predicted, size_t size, uint8_t* raw);

}  // namespace Private
}  // namespace TESSERA
