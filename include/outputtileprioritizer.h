/// @file
/// OutputTilePrioritizer: the order in which a render's output tiles should
/// arrive.
#pragma once

#include <cstdint>
#include <vector>

#include "renderdescription.h"
#include "renderobserver.h"
#include "tessera_export.h"
#include "util/ref_ptr.h"

namespace TESSERA {

/// Gives each output tile of a render an ordering value; smaller values are
/// rendered first, and every tile a tile needs inherits its most urgent value.
class TESSERA_API OutputTilePrioritizer : public ThreadSafeRefBase {
public:
    ~OutputTilePrioritizer() override;
    /// One value per entry of tiles.
    virtual std::vector<uint32_t> prioritize(const std::vector<OutputTileID>& tiles,
                                             const std::vector<RenderDescription>& outputs) = 0;
};

/// Prioritizers are shared by reference count.
using OutputTilePrioritizerPtr = RCX_ptr_v4::ref_ptr<OutputTilePrioritizer>;

/// Outputs in order, each top row first, left to right: how a batch render
/// writes scanline files.
class TESSERA_API RowMajorTilePrioritizer : public OutputTilePrioritizer {
public:
    std::vector<uint32_t> prioritize(const std::vector<OutputTileID>& tiles,
                                     const std::vector<RenderDescription>& outputs) override;
};

/// Nearest to a point first (by default the centre of each output's area):
/// what a viewer wants, the middle of the frame, or where the artist looks.
class TESSERA_API CenterOutTilePrioritizer : public OutputTilePrioritizer {
public:
    CenterOutTilePrioritizer() = default;
    /// Nearest to the pixel (x, y) first, in every output.
    CenterOutTilePrioritizer(double x, double y) : m_hasCenter(true), m_x(x), m_y(y) {}
    std::vector<uint32_t> prioritize(const std::vector<OutputTileID>& tiles,
                                     const std::vector<RenderDescription>& outputs) override;

private:
    bool m_hasCenter = false;
    double m_x = 0, m_y = 0;
};

}  // namespace TESSERA
