/// @file
/// Channel shuffling: each output channel from a channel of one of two
/// inputs, or a constant.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

/// Where one output channel comes from.
struct TESSERA_API ShuffleSource {
    /// A channel of an input, or a constant 0 or 1.
    enum Kind { Input, Zero, One };
    Kind kind = Input;     ///< which of them
    int input = 0;         ///< 0 for a, 1 for b
    uint64_t channel = 0;  ///< one channel bit of that input
};

/// The channels of a list as people write them, comma-separated: letters of
/// R, G, B, A, Z ("RGBA", "Z"), names ("forward.u"), whole layers
/// ("diffuse.*") or "all", among `available`. Letters need not be available
/// (they stand for the background where they are not); a name or layer that
/// is not throws std::invalid_argument saying what there is.
TESSERA_API uint64_t parseChannelList(const std::string& text, uint64_t available);

/// A channel as a shuffle names it: "a.r" ... "b.v", "0" or "1".
TESSERA_API ShuffleSource parseShuffleSource(const std::string& text);

/// Output channel i (a channel bit) takes sources[i].second. An output
/// channel is defined when its source is a constant or a channel its input
/// defines. b may be null when nothing reads it. Bad channel bits or a
/// source reading a missing b throw std::invalid_argument naming the task.
TESSERA_API TaskPtr createShuffleTask(
    const std::string& name, float time,
    const std::vector<std::pair<uint64_t, ShuffleSource>>& sources, TaskPtr a, TaskPtr b);

}  // namespace TESSERA
