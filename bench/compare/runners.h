// The libraries compared, each behind the Runner interface.
#pragma once

#include <memory>

#include "workload.h"

namespace compare {

std::unique_ptr<Runner> makeTesseraRunner();
std::unique_ptr<Runner> makeVipsRunner();
std::unique_ptr<Runner> makeOiioRunner();
std::unique_ptr<Runner> makeGeglRunner();

}  // namespace compare
