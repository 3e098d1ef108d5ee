// The libraries compared, each behind the Runner interface.
#pragma once

#include <memory>

#include "workload.h"

namespace compare {

// How Tessera's render cuts the output: the engine's default square tiles,
// or strips of full rows (the output's width by 16 rows), which a host
// streaming whole frames through copies and pixel-wise operations may set.
enum class TileShape { Square, Strip };
std::unique_ptr<Runner> makeTesseraRunner(TileShape shape = TileShape::Square);
std::unique_ptr<Runner> makeVipsRunner();
std::unique_ptr<Runner> makeOiioRunner();
std::unique_ptr<Runner> makeGeglRunner();

}  // namespace compare
