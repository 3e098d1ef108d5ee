#include "mosaic.h"

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "chain.h"
#include "tessera.h"

namespace tessera_cli {

using json = nlohmann::ordered_json;

namespace {

constexpr int kMargin = 8;        // around each cell
constexpr int kLabelHeight = 22;  // the band under a cell its label takes
constexpr double kLabelSize = 14;
const json kBackground = {0.08, 0.08, 0.08, 1};
const json kLabelColor = {0.8, 0.8, 0.8, 1};

// The file's name, its end kept when it is wider than the cell (the frame
// number and extension tell files of a sequence apart).
std::string label(const std::string& path, int cellWidth) {
    std::string name = std::filesystem::path(path).filename().string();
    const size_t fits = size_t(std::max(4.0, cellWidth / (0.6 * kLabelSize)));
    if (name.size() > fits) name = "\u2026" + name.substr(name.size() - (fits - 1));
    return name;
}

}  // namespace

std::string mosaicGraph(const MosaicSettings& s) {
    if (s.files.empty()) throw ChainError("mosaic: no files");
    if (s.cell.size() != 2 || s.cell[0] < 8 || s.cell[1] < 8 || s.cell[0] > 16384 ||
        s.cell[1] > 16384)
        throw ChainError("mosaic: --cell takes a width and a height of 8 to 16384 pixels");
    const int count = int(s.files.size());
    const int columns =
        s.columns > 0 ? std::min(s.columns, count) : int(std::ceil(std::sqrt(double(count))));
    const int rows = (count + columns - 1) / columns;
    const int cw = s.cell[0], ch = s.cell[1];
    const int pitchX = cw + 2 * kMargin, pitchY = ch + 2 * kMargin + (s.labels ? kLabelHeight : 0);
    const json sheet = {0, 0, columns * pitchX, rows * pitchY};

    json nodes = json::array();
    nodes.push_back({{"id", "sheet"},
                     {"op", "constant"},
                     {"params", {{"color", kBackground}, {"area", sheet}}}});
    std::string below = "sheet";
    for (int i = 0; i < count; ++i) {
        const std::string& path = s.files[size_t(i)];
        const std::string n = std::to_string(i + 1);
        // The display window fits the cell, centred, its aspect kept.
        const TESSERA::FileWindows windows = TESSERA::readFileWindows(path);
        const UTIL::Rect& d =
            windows.displayWindow.isNull() ? windows.dataWindow : windows.displayWindow;
        if (d.isNull()) throw ChainError("mosaic: '" + path + "' has no pixels");
        const double scale =
            std::min(double(cw) / double(d.width()), double(ch) / double(d.height()));
        const int cx = (i % columns) * pitchX + kMargin, cy = (i / columns) * pitchY + kMargin;
        const double tx = cx + (cw - scale * double(d.width())) / 2 - scale * double(d.xmin);
        const double ty = cy + (ch - scale * double(d.height())) / 2 - scale * double(d.ymin);
        nodes.push_back({{"id", "file" + n}, {"op", "filein"}, {"params", {{"path", path}}}});
        nodes.push_back({{"id", "fitted" + n},
                         {"op", "scale"},
                         {"params",
                          {{"scale", {scale, scale}},
                           {"translate", {tx, ty}},
                           {"filter", "lanczos3"},
                           {"extend", "clamp"}}},
                         {"inputs", {{"input", "file" + n}}}});
        // The display window's picture alone: what lies outside it stays out
        // of the neighbours' cells, and its edges are not blurred into the sheet.
        const json picture = {int(std::lround(tx + scale * double(d.xmin))),
                              int(std::lround(ty + scale * double(d.ymin))),
                              int(std::lround(tx + scale * double(d.xmax))),
                              int(std::lround(ty + scale * double(d.ymax)))};
        nodes.push_back({{"id", "cell" + n},
                         {"op", "crop"},
                         {"params", {{"rect", picture}}},
                         {"inputs", {{"input", "fitted" + n}}}});
        nodes.push_back({{"id", "placed" + n},
                         {"op", "composite"},
                         {"inputs", {{"a", "cell" + n}, {"b", below}}}});
        below = "placed" + n;
        if (!s.labels) continue;
        nodes.push_back({{"id", "name" + n},
                         {"op", "text"},
                         {"params",
                          {{"text", label(path, cw)},
                           {"size", kLabelSize},
                           {"color", kLabelColor},
                           {"position", {cx + cw / 2, cy + ch + kMargin + int(kLabelSize)}},
                           {"align", "centre"}}}});
        nodes.push_back({{"id", "labelled" + n},
                         {"op", "composite"},
                         {"inputs", {{"a", "name" + n}, {"b", below}}}});
        below = "labelled" + n;
    }
    const json outputs = json::array({{{"node", below}, {"rect", sheet}, {"file", s.output}}});
    return graphText(nodes.dump(), outputs.dump(), "");
}

}  // namespace tessera_cli
