// Orrery3::Expressionmath::v3: the noise functions of the expression math
// library (used by the generators).
#pragma once

#include <cstdint>

#include "tessera_export.h"

namespace Orrery3 {
namespace Expressionmath {
namespace v3 {

// Perlin's improved gradient noise in [-1, 1] (0 at integer lattice points).
TESSERA_API float snoise(float x, float y, float z);
// The same mapped to [0, 1].
TESSERA_API float noise(float x, float y, float z);
// A value in [0, 1) hashed from integer coordinates and a seed: the same
// inputs always give the same value.
TESSERA_API float randval(int64_t x, int64_t y, uint32_t seed);

}  // namespace v3
}  // namespace Expressionmath
}  // namespace Orrery3
