// The viewer's render session, bound into the native module.
#pragma once

#include <pybind11/pybind11.h>

void bindViewRender(pybind11::module_& m);
