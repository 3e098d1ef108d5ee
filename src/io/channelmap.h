// Which of the engine's channels each channel of an image file becomes:
// always by name, never by position.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace TESSERA {
namespace Private {

// What a file input asks of a file's channels.
struct ChannelChoice {
    std::string layer;          // the layer that fills R, G, B, A; empty: the file's own
    bool layerInOrder = false;  // a layer without R, G, B, A fills them in the file's order
    std::string view;           // empty: the default view
};

struct FileChannelMap {
    uint64_t channels = 0;                        // the channels read
    std::vector<std::pair<uint64_t, int>> reads;  // (channel bit, file channel), in bit order
    std::string note;  // how a layer was taken in order ("forward.u as R, ..."), else empty
};

// A channel's view is the next to last part of its name when that is one of
// `views` ("right.R", "diffuse.right.R" -> "diffuse.R"), else the default
// view (the first; none without views).
struct ViewedName {
    std::string view;
    std::string name;  // without the view
};
ViewedName viewOfChannel(const std::string& name, const std::vector<std::string>& views);

// Maps the channels of one part of a file (`names` in the file's order;
// `views` its views, the default first, or none). Channels named R, G, B, A
// and Z (or r, g, ...) keep those bits, a grey file's Y fills R, G and B,
// every other channel is read under its own name ("diffuse.R", "mask").
// With a layer, "layer.R" (or .red, .r, any case) and so on fill R, G, B, A
// and the file's own R, G, B, A are not read; the layer's and the file's
// other channels keep their names. With a view, only its channels are read,
// named without the view. Throws std::runtime_error saying what the file
// lacks (no such layer or view, a layer without R, G, B or A, no channel
// bit left for a name), listing what it has.
FileChannelMap mapFileChannels(const std::vector<std::string>& names,
                               const std::vector<std::string>& views, const ChannelChoice& choice);

}  // namespace Private
}  // namespace TESSERA
