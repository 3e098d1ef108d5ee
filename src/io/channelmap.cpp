#include "io/channelmap.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "imglib/channels.h"
#include "imglib/error.h"

namespace TESSERA {
namespace Private {
namespace {

std::string lower(std::string s) {
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

// The fixed channel a name stands for: 0 to 3 for R, G, B, A (single
// letters in either case, or red, green, blue, alpha as well when
// `wordsToo`), 4 for Z (letters only); -1 for any other name.
int fixedIndex(const std::string& name, bool wordsToo) {
    static const char* const letters[5] = {"r", "g", "b", "a", "z"};
    static const char* const words[4] = {"red", "green", "blue", "alpha"};
    const std::string l = lower(name);
    for (int i = 0; i < 5; ++i)
        if (l == letters[i] || (wordsToo && i < 4 && l == words[i])) return i;
    return -1;
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    const size_t shown = std::min<size_t>(names.size(), 16);
    for (size_t i = 0; i < shown; ++i) text += (i ? ", " : "") + names[i];
    if (shown < names.size()) text += ", ... (" + std::to_string(names.size()) + " in all)";
    return names.empty() ? "none" : text;
}

uint64_t bitFor(const std::string& name) {
    const uint64_t bit = IMGLIB::GetChannelForName(name);
    if (!bit) throw std::runtime_error(IMGLIB::GetErrorMessage());
    return bit;
}

struct Named {
    int index;         // in the file
    std::string name;  // without the view
};

// The channels of `view` under their names without it.
std::vector<Named> channelsOfView(const std::vector<std::string>& names,
                                  const std::vector<std::string>& views, const std::string& view) {
    std::vector<Named> chosen;
    for (size_t c = 0; c < names.size(); ++c) {
        ViewedName viewed = viewOfChannel(names[c], views);
        if (viewed.view == view) chosen.push_back({int(c), std::move(viewed.name)});
    }
    return chosen;
}

}  // namespace

ViewedName viewOfChannel(const std::string& name, const std::vector<std::string>& views) {
    ViewedName viewed{views.empty() ? std::string() : views.front(), name};
    const size_t last = name.rfind('.');
    if (views.empty() || last == std::string::npos || last == 0) return viewed;
    const size_t before = name.rfind('.', last - 1);
    const size_t start = before == std::string::npos ? 0 : before + 1;
    const std::string part = name.substr(start, last - start);
    if (std::find(views.begin(), views.end(), part) != views.end()) {
        viewed.view = part;
        viewed.name.erase(start, last + 1 - start);
    }
    return viewed;
}

FileChannelMap mapFileChannels(const std::vector<std::string>& names,
                               const std::vector<std::string>& views, const ChannelChoice& choice) {
    std::string view = choice.view;
    if (view.empty() && !views.empty()) view = views.front();
    if (!choice.view.empty() && std::find(views.begin(), views.end(), view) == views.end())
        throw std::runtime_error("it has no view '" + choice.view + "' (views: " + listed(views) +
                                 ")");
    const std::vector<Named> chosen = channelsOfView(names, views, view);

    FileChannelMap map;
    auto read = [&map](uint64_t bit, int index) {
        if (map.channels & bit) return false;  // the first of a name wins
        map.channels |= bit;
        map.reads.emplace_back(bit, index);
        return true;
    };
    if (choice.layer.empty()) {
        for (const Named& c : chosen) {
            const int fixed = fixedIndex(c.name, false);
            if (fixed < 0 || !read(uint64_t(1) << fixed, c.index))
                if (c.name != "Y") read(bitFor(c.name), c.index);
        }
        // Grey: Y fills R, G and B when the file has none of them.
        for (const Named& c : chosen)
            if (c.name == "Y") {
                if (map.channels & IMGLIB::CHANNELS_RGB)
                    read(bitFor("Y"), c.index);
                else
                    for (uint64_t bit : {IMGLIB::CHANNEL_R, IMGLIB::CHANNEL_G, IMGLIB::CHANNEL_B})
                        read(bit, c.index);
                break;
            }
    } else {
        const std::string prefix = choice.layer + ".";
        std::vector<Named> layer, others;
        for (const Named& c : chosen)
            (c.name.size() > prefix.size() && c.name.compare(0, prefix.size(), prefix) == 0
                 ? layer
                 : others)
                .push_back(c);
        if (layer.empty()) {
            std::vector<std::string> layers;
            for (const Named& c : chosen) {
                const size_t dot = c.name.rfind('.');
                const std::string l = dot == std::string::npos ? "" : c.name.substr(0, dot);
                if (!l.empty() && std::find(layers.begin(), layers.end(), l) == layers.end())
                    layers.push_back(l);
            }
            throw std::runtime_error("it has no layer '" + choice.layer +
                                     "' (layers: " + listed(layers) + ")");
        }
        std::vector<const Named*> unmapped;
        for (const Named& c : layer) {
            const int fixed = fixedIndex(c.name.substr(prefix.size()), true);
            if (fixed < 0 || fixed > 3 || !read(uint64_t(1) << fixed, c.index))
                unmapped.push_back(&c);
        }
        if (!(map.channels & IMGLIB::CHANNELS_RGBA)) {
            std::vector<std::string> have;
            for (const Named& c : layer) have.push_back(c.name);
            if (!choice.layerInOrder)
                throw std::runtime_error("its layer '" + choice.layer +
                                         "' has no channel R, G, B or A (it has " + listed(have) +
                                         "); ask for them in the file's order to read them so");
            static const char* const letters[4] = {"R", "G", "B", "A"};
            for (size_t i = 0; i < unmapped.size() && i < 4; ++i) {
                read(uint64_t(1) << i, unmapped[i]->index);
                map.note += (i ? ", " : "") + unmapped[i]->name + " as " + letters[i];
            }
            unmapped.erase(unmapped.begin(),
                           unmapped.begin() + std::min<size_t>(4, unmapped.size()));
        }
        for (const Named* c : unmapped) read(bitFor(c->name), c->index);
        for (const Named& c : others) {
            const int fixed = fixedIndex(c.name, false);
            if (fixed >= 0 && fixed < 4) continue;  // the layer fills R, G, B, A
            read(fixed == 4 ? IMGLIB::CHANNEL_Z : bitFor(c.name), c.index);
        }
    }
    std::sort(map.reads.begin(), map.reads.end());
    return map;
}

}  // namespace Private
}  // namespace TESSERA
