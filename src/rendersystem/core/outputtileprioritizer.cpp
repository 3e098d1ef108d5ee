#include "outputtileprioritizer.h"

#include <algorithm>
#include <numeric>
#include <tuple>

namespace TESSERA {

OutputTilePrioritizer::~OutputTilePrioritizer() = default;

namespace {

// Ranks of the keys: the smallest key gets 0; ties keep the tiles' order.
template <class Key>
std::vector<uint32_t> ranks(const std::vector<Key>& keys) {
    std::vector<uint32_t> order(keys.size());
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(),
                     [&](uint32_t a, uint32_t b) { return keys[a] < keys[b]; });
    std::vector<uint32_t> rank(keys.size());
    for (uint32_t r = 0; r < order.size(); ++r) rank[order[r]] = r;
    return rank;
}

}  // namespace

std::vector<uint32_t> RowMajorTilePrioritizer::prioritize(const std::vector<OutputTileID>& tiles,
                                                          const std::vector<RenderDescription>&) {
    std::vector<std::tuple<size_t, int, int>> keys;
    for (const OutputTileID& t : tiles)
        keys.emplace_back(t.outputIndex, t.tileID.yIndex(), t.tileID.xIndex());
    return ranks(keys);
}

std::vector<uint32_t> CenterOutTilePrioritizer::prioritize(
    const std::vector<OutputTileID>& tiles, const std::vector<RenderDescription>& outputs) {
    std::vector<std::pair<double, size_t>> keys;
    for (const OutputTileID& t : tiles) {
        const UTIL::Rect output =
            t.outputIndex < outputs.size() ? outputs[t.outputIndex].rect : UTIL::Rect();
        const UTIL::Rect area = t.tileID.rect().intersection(output);
        const double cx = m_hasCenter ? m_x : 0.5 * double(output.xmin + output.xmax);
        const double cy = m_hasCenter ? m_y : 0.5 * double(output.ymin + output.ymax);
        const double dx = 0.5 * double(area.xmin + area.xmax) - cx;
        const double dy = 0.5 * double(area.ymin + area.ymax) - cy;
        keys.emplace_back(dx * dx + dy * dy, t.outputIndex);
    }
    return ranks(keys);
}

}  // namespace TESSERA
