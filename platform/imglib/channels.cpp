#include "imglib/channels.h"

#include <array>
#include <atomic>
#include <bitset>
#include <mutex>

#include "imglib/error.h"

namespace IMGLIB {
namespace {

// Names are written once, under the mutex, before their bit is published
// in `used` (release); readers that see the bit (acquire) read the name
// without the lock. A name is never changed or removed.
struct ChannelRegistry {
    std::mutex mutex;  // guards registration; readers take no lock
    std::atomic<uint64_t> used{(uint64_t(1) << NUM_FIXED_CHANNELS) - 1};
    std::array<std::string, MAX_CHANNELS> names{"R", "G", "B", "A", "Z", "U", "V"};

    static ChannelRegistry& instance() {
        static ChannelRegistry* registry = new ChannelRegistry;  // outlives every image
        return *registry;
    }
    uint64_t find(const std::string& name) const {
        const uint64_t bits = used.load(std::memory_order_acquire);
        for (int bit = 0; bit < MAX_CHANNELS; ++bit)
            if ((bits >> bit & 1) && names[size_t(bit)] == name) return uint64_t(1) << bit;
        return 0;
    }
};

}  // namespace

uint64_t ValidateChannelMask(uint64_t mask) {
    return mask & ChannelRegistry::instance().used.load(std::memory_order_acquire);
}

bool IsChannelMaskValid(uint64_t mask) {
    return (mask & ~ChannelRegistry::instance().used.load(std::memory_order_acquire)) == 0;
}

std::string GetChannelMaskName(uint64_t mask) {
    if (mask == 0) return "none";
    const ChannelRegistry& registry = ChannelRegistry::instance();
    const uint64_t used = registry.used.load(std::memory_order_acquire);
    std::string name;
    for (int bit = 0; bit < MAX_CHANNELS; ++bit) {
        if (!(mask >> bit & 1)) continue;
        if (bit >= NUM_FIXED_CHANNELS && !name.empty()) name += ',';
        name += (used >> bit & 1) ? registry.names[size_t(bit)] : "?";
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

uint64_t GetChannelForName(const std::string& name) {
    ChannelRegistry& registry = ChannelRegistry::instance();
    if (const uint64_t bit = registry.find(name)) return bit;
    std::lock_guard<std::mutex> lock(registry.mutex);
    if (const uint64_t bit = registry.find(name)) return bit;  // named meanwhile
    const uint64_t used = registry.used.load(std::memory_order_relaxed);
    if (name.empty()) {
        SetError(ERROR_INVALID_ARGUMENT, "a channel needs a name");
        return 0;
    }
    if (~used == 0) {
        SetError(ERROR_TOO_MANY_CHANNELS,
                 "cannot hold channel '" + name + "': all " + std::to_string(MAX_CHANNELS) +
                     " channel bits of the process are taken by other names");
        return 0;
    }
    const uint64_t free = ~used & (used + 1);  // the lowest clear bit
    int index = 0;
    while (!(free >> index & 1)) ++index;
    registry.names[size_t(index)] = name;
    registry.used.store(used | free, std::memory_order_release);
    return free;
}

uint64_t FindChannel(const std::string& name) {
    return ChannelRegistry::instance().find(name);
}

std::string GetChannelName(uint64_t channel) {
    if (!channel || (channel & (channel - 1)) || !IsChannelMaskValid(channel)) return std::string();
    int index = 0;
    while (!(channel >> index & 1)) ++index;
    return ChannelRegistry::instance().names[size_t(index)];
}

std::vector<std::string> GetChannelNames(uint64_t mask) {
    std::vector<std::string> names;
    for (int bit = 0; bit < MAX_CHANNELS; ++bit)
        if (mask >> bit & 1) names.push_back(GetChannelName(uint64_t(1) << bit));
    return names;
}

}  // namespace IMGLIB
