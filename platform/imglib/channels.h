// IMGLIB channel-mask helpers.
#pragma once

#include <cstdint>
#include <string>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// The mask with every bit IMGLIB does not define removed.
TESSERA_API uint64_t ValidateChannelMask(uint64_t mask);
// True when the mask names only channels IMGLIB defines (0 is valid: no channels).
TESSERA_API bool IsChannelMaskValid(uint64_t mask);
// Channel letters in bit order ("RGBA", "RGBAZ", "A", "RGBaux0"); "none" for 0.
// Undefined bits are shown as "?".
TESSERA_API std::string GetChannelMaskName(uint64_t mask);
// Bytes of one pixel: 4 per channel. An invalid mask records
// ERROR_INVALID_CHANNEL_MASK and returns 0.
TESSERA_API int64_t GetPixelBytes(uint64_t mask);
// Number of channels in a valid mask.
TESSERA_API int GetChannelCount(uint64_t mask);
// Position of channel bit `channel` among the interleaved channels of mask,
// or -1 when mask does not hold it.
TESSERA_API int GetChannelIndex(uint64_t mask, uint64_t channel);

}  // namespace IMGLIB
