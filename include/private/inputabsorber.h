// A task that can do the work of its first input in its own pass (the two
// passes of a separable filter in one sweep over each tile). Before a
// render, a task whose first input has no other consumer is offered that
// input; when it takes over the input's work, the input's own input becomes
// its first input and the input drops out of the render.
#pragma once

#include "rendertask.h"

namespace TESSERA {
namespace Private {

class InputAbsorber {
public:
    virtual ~InputAbsorber() = default;
    // Takes over `input`'s work and returns true, or returns false and
    // changes nothing.
    virtual bool absorbInput(RenderTask& input) = 0;
};

}  // namespace Private
}  // namespace TESSERA
