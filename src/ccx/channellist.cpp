// Lists of channels as people write them: "RGBA,Z,diffuse.*,forward.u", "all".
#include <stdexcept>

#include "channeltasks.h"
#include "imglib/channels.h"

namespace TESSERA {

uint64_t parseChannelList(const std::string& text, uint64_t available) {
    auto lacking = [&](const std::string& what) {
        return std::invalid_argument("no " + what + " (it has " +
                                     IMGLIB::GetChannelMaskName(available) + ")");
    };
    uint64_t mask = 0;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) comma = text.size();
        const std::string token = text.substr(start, comma - start);
        start = comma + 1;
        if (token.empty()) throw std::invalid_argument("an empty channel name in '" + text + "'");
        if (token == "all") {
            mask |= available;
        } else if (token.find_first_not_of("RGBAZ") == std::string::npos) {
            for (char c : token) mask |= IMGLIB::FindChannel(std::string(1, c));
        } else if (token.size() > 2 && token.compare(token.size() - 2, 2, ".*") == 0) {
            const std::string prefix = token.substr(0, token.size() - 1);
            uint64_t layer = 0;
            for (int bit = 0; bit < IMGLIB::MAX_CHANNELS; ++bit)
                if ((available >> bit & 1) &&
                    IMGLIB::GetChannelName(uint64_t(1) << bit).rfind(prefix, 0) == 0)
                    layer |= uint64_t(1) << bit;
            if (!layer) throw lacking("layer '" + token.substr(0, token.size() - 2) + "'");
            mask |= layer;
        } else {
            const uint64_t channel = IMGLIB::FindChannel(token);
            if (!(channel & available)) throw lacking("channel '" + token + "'");
            mask |= channel;
        }
    }
    return mask;
}

}  // namespace TESSERA
