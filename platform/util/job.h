// Util::Job: a unit of work for the worker pool.
#pragma once

#include <cstdint>

#include "../tessera_export.h"
#include "ref_ptr.h"

namespace Util {

class TESSERA_API Job : public ThreadSafeRefBase {
public:
    ~Job() override;
    virtual void run() = 0;
    // Smaller runs first.
    virtual uint64_t getPriority() const { return 0; }
};

using JobPtr = RcPtr<Job>;

}  // namespace Util
