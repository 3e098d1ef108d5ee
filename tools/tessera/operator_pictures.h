// Pictures of the operators for the reference: each operator's declared
// example rendered on a standard plate, one PNG per operator.
#pragma once

#include <string>

namespace TESSERA {

// Writes DIR/NAME.png for every operator (DIR is created). The plate is a
// textured gradient with a soft disc of alpha and depth; an operator's
// second input is a ramp; file-reading operators read the plate, a curve
// LUT and a small OpenColorIO configuration written beside it for the
// while. Throws what failed, naming the operator.
void writeOperatorPictures(const std::string& dir);

}  // namespace TESSERA
