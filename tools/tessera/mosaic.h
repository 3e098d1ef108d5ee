// `tessera mosaic`: a contact sheet of image files, each fitted into a cell
// and labelled with its name, built as a graph file and rendered as one.
#pragma once

#include <string>
#include <vector>

namespace tessera_cli {

struct MosaicSettings {
    std::vector<std::string> files;
    std::string output;
    int columns = 0;                  // 0: about as many as rows
    std::vector<int> cell{320, 180};  // each picture's box, in pixels
    bool labels = true;
};

// The graph file (JSON) of the sheet; throws ChainError for settings it
// cannot lay out, and what reading a file's windows throws.
std::string mosaicGraph(const MosaicSettings& settings);

}  // namespace tessera_cli
