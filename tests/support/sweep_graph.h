// The graph every operation is swept in: two sources (a plate file with
// alpha, depth and render passes, and a ramp with depth from its blue)
// feeding the operation, which is the output. Operations come from the graph
// format's own list, so one declared later joins every sweep.
#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "graphfile.h"
#include "util/rect.h"

namespace TESSERA {
namespace testing {

extern const UTIL::Rect kSweepArea;      // the plate's data
extern const UTIL::Rect kSweepRampArea;  // the ramp's: apart in some tiles
extern const UTIL::Rect kSweepRender;    // a margin of background around them

// Files the file-reading operations read, removed with it.
struct SweepFiles {
    std::filesystem::path dir;
    SweepFiles();
    ~SweepFiles();
    std::string image() const { return (dir / "plate.exr").string(); }
    std::string lut() const { return (dir / "curve.spi1d").string(); }
    std::string config() const { return (dir / "config.ocio").string(); }
};

// The graph file text of `op` in the sweep graph: required parameters (and
// those whose default does nothing) take their declared examples, and
// `values` (parameter name to JSON text) replace or add parameters.
std::string sweepGraph(const OperationDescription& op, const SweepFiles& files,
                       const std::map<std::string, std::string>& values = {});

}  // namespace testing
}  // namespace TESSERA
