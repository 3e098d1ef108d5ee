#include "io/exrparts.h"

#include "io/channelmap.h"

namespace TESSERA {
namespace Private {

std::vector<ExrPart> exrParts(const std::vector<std::string>& names,
                              const std::vector<std::string>& views, bool perLayer) {
    std::vector<ExrPart> parts;
    if (!perLayer) {
        parts.push_back({});
        for (size_t c = 0; c < names.size(); ++c) {
            parts[0].channels.push_back(c);
            parts[0].fileNames.push_back(names[c]);
        }
        return parts;
    }
    for (size_t c = 0; c < names.size(); ++c) {
        const ViewedName viewed = viewOfChannel(names[c], views);
        const size_t dot = viewed.name.rfind('.');
        std::string name = dot == std::string::npos ? "rgba" : viewed.name.substr(0, dot);
        if (!viewed.view.empty()) name += "." + viewed.view;
        auto part = parts.begin();
        while (part != parts.end() && part->name != name) ++part;
        if (part == parts.end())
            part = parts.insert(parts.end(), ExrPart{name, viewed.view, {}, {}});
        part->channels.push_back(c);
        part->fileNames.push_back(viewed.name);
    }
    return parts;
}

}  // namespace Private
}  // namespace TESSERA
