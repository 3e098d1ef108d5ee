// Timing, peak memory and the machine's bandwidth ceiling.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace compare {

double secondsOf(const std::function<void()>& work);
double median(std::vector<double> values);

// Resident memory of this process, in bytes: now, and the most since the
// last resetPeakResident().
int64_t residentBytes();
int64_t peakResidentBytes();
void resetPeakResident();

// Streaming read and write of `bytes` (out = in * k over two buffers of
// that size) on `threads` threads: bytes moved per second, the best of
// `runs`.
double streamingBandwidth(size_t bytes, int threads, int runs);

}  // namespace compare
