// How an EXR output's channels are laid out in parts.
#pragma once

#include <string>
#include <vector>

namespace TESSERA {
namespace Private {

struct ExrPart {
    std::string name;                    // the part's "name" attribute; empty in a one-part file
    std::string view;                    // the part's "view" attribute, or empty
    std::vector<size_t> channels;        // indices into the output's channels
    std::vector<std::string> fileNames;  // their names in this part
};

// The parts of a file with channels `names` (in the output's order; the
// views' channels named as in one multi-view part, "right.R"). One part
// holds everything unless `perLayer`: then each layer has a part named for
// it, "rgba" for channels without a layer ("R", "Z", "mask"), in the order
// the layers first appear; with views, one per view and layer
// ("rgba.left", "diffuse.right"), with a "view" attribute and channels
// named without the view.
std::vector<ExrPart> exrParts(const std::vector<std::string>& names,
                              const std::vector<std::string>& views, bool perLayer);

}  // namespace Private
}  // namespace TESSERA
