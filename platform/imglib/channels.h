/// @file
/// IMGLIB channel-mask helpers and the registry of channel names.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../tessera_export.h"
#include "image.h"

namespace IMGLIB {

/// The mask with every bit that names no channel removed.
TESSERA_API uint64_t ValidateChannelMask(uint64_t mask);
/// True when every bit of the mask names a channel (0 is valid: no channels).
TESSERA_API bool IsChannelMaskValid(uint64_t mask);
/// The channels of a mask, for people and logs: the letters of the fixed
/// channels in bit order, then the names of the others, separated by commas
/// ("RGBA", "RGBAZ", "A", "RGB,diffuse.R,forward.u", "mask"); "none" for 0.
/// A bit that names no channel is shown as "?".
TESSERA_API std::string GetChannelMaskName(uint64_t mask);
/// Bytes of one pixel: 4 per channel. An invalid mask records
/// ERROR_INVALID_CHANNEL_MASK and returns 0.
TESSERA_API int64_t GetPixelBytes(uint64_t mask);
/// Number of channels in a valid mask.
TESSERA_API int GetChannelCount(uint64_t mask);
/// Position of channel bit `channel` among the interleaved channels of mask,
/// or -1 when mask does not hold it.
TESSERA_API int GetChannelIndex(uint64_t mask, uint64_t channel);

// The registry of channel names, one for the process. R, G, B, A, Z, U and
// V hold bits 0 to 6; any other name takes the lowest free bit the first
// time it is named and keeps it for the life of the process, so masks built
// from names compare, merge and cache like masks of letters.

/// The bit of channel `name`, registering the name when it is new; 0, with
/// ERROR_TOO_MANY_CHANNELS recorded (naming the channel), when every bit is
/// taken. Names are case-sensitive, as in image files.
TESSERA_API uint64_t GetChannelForName(const std::string& name);
/// The bit of channel `name` when it is registered, else 0 (registers nothing).
TESSERA_API uint64_t FindChannel(const std::string& name);
/// The name of one channel bit ("R", "diffuse.R"); empty for a bit that
/// names no channel.
TESSERA_API std::string GetChannelName(uint64_t channel);
/// The names of a mask's channels, in bit order.
TESSERA_API std::vector<std::string> GetChannelNames(uint64_t mask);

}  // namespace IMGLIB
