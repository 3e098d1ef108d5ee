// Engine objects are held in Python by their reference-counted pointers:
// every file of the module that binds them must say so alike.
#pragma once

#include <pybind11/pybind11.h>

#include "util/ref_ptr.h"

PYBIND11_DECLARE_HOLDER_TYPE(T, RCX_ptr_v4::ref_ptr<T>, true);
