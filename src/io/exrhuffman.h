// The Huffman coder of EXR's piz chunks, writing the stream OpenEXR's
// hufUncompress reads: a header (lowest and highest symbol, table bytes,
// data bits), the code lengths with runs of unused symbols packed, then the
// codes, most significant bit first, with runs of a repeated word as the
// word, a run symbol and a count. OpenEXR's own coder builds the code with a
// heap of pointers, half of a piz write of float pictures (whose low words
// take tens of thousands of values a chunk); this one sorts the counts with
// a radix sort and finds the code lengths in place, in linear time.
#pragma once

#include <cstdint>

namespace TESSERA {
namespace Private {

/// Upper bound of the bytes huffmanCompress writes for `count` words.
uint64_t huffmanCompressBound(uint64_t count);

/// Codes `count` words (1 to 2^31 - 1) into `out` (huffmanCompressBound
/// bytes); returns the bytes written.
uint64_t huffmanCompress(const uint16_t* words, uint64_t count, uint8_t* out);

}  // namespace Private
}  // namespace TESSERA
