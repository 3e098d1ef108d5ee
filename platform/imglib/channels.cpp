#include "imglib/channels.h"

#include <bitset>

#include "imglib/error.h"

namespace IMGLIB {
namespace {

const char* const kChannelNames[NUM_KNOWN_CHANNELS] = {"R",    "G",    "B",    "A",    "Z",
                                                       "U",    "V",    "aux0", "aux1", "aux2",
                                                       "aux3", "aux4", "aux5", "aux6", "aux7"};

}  // namespace

uint64_t ValidateChannelMask(uint64_t mask) {
    return mask & CHANNELS_ALL;
}

bool IsChannelMaskValid(uint64_t mask) {
    return (mask & ~CHANNELS_ALL) == 0;
}

std::string GetChannelMaskName(uint64_t mask) {
    if (mask == 0) return "none";
    std::string name;
    for (int bit = 0; bit < 64; ++bit) {
        if (!(mask & (uint64_t(1) << bit))) continue;
        name += bit < NUM_KNOWN_CHANNELS ? kChannelNames[bit] : "?";
    }
    return name;
}

int64_t GetPixelBytes(uint64_t mask) {
    if (!IsChannelMaskValid(mask)) {
        SetError(ERROR_INVALID_CHANNEL_MASK, "Invalid channel mask " + std::to_string(mask));
        return 0;
    }
    return 4 * GetChannelCount(mask);
}

int GetChannelCount(uint64_t mask) {
    return static_cast<int>(std::bitset<64>(mask).count());
}

int GetChannelIndex(uint64_t mask, uint64_t channel) {
    if (!(mask & channel)) return -1;
    return GetChannelCount(mask & (channel - 1));
}

}  // namespace IMGLIB
