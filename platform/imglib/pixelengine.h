// Entry points of the vector engine (dispatched to the best instruction set
// of the machine). Arguments are checked by the callers.
#pragma once

#include "imglib/compositeops.h"
#include "imglib/pointops.h"

namespace IMGLIB {

void DispatchPointOps(const Image* out, const Image* in, const PointOp* ops, size_t count);
void DispatchBinaryOp(const Image* out, const Image* in0, const Image* in1, const BinaryOp& op,
                      const float bg0[4], const float bg1[4]);

}  // namespace IMGLIB
