#include "util/job.h"

namespace Util {

Job::~Job() = default;

}  // namespace Util
