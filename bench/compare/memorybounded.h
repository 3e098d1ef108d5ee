// A render far larger than the image memory budget: a 16384x16384 RGBA
// float output (4 GiB) of a blur over a generator, with 256 MB of image
// memory.
#pragma once

#include <cstdint>
#include <string>

namespace compare {

struct MemoryBoundedReport {
    int64_t size = 0;             // output width and height
    int64_t budgetMegabytes = 0;  // the image memory budget
    double seconds = 0;
    int64_t tilesDelivered = 0, tilesExpected = 0;
    int64_t peakResidentBytes = 0;  // of the process during the render
    int64_t peakImageBytes = 0;     // the image allocator's own peak
    int64_t swappedOut = 0, swappedIn = 0, peakDiskBytes = 0;
};

MemoryBoundedReport runMemoryBounded(int threads);
std::string describe(const MemoryBoundedReport& report);

}  // namespace compare
