#include "measure.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace compare {
namespace {

int64_t statusKilobytes(const std::string& field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, field.size(), field) == 0) return std::stoll(line.substr(field.size()));
    return 0;
}

}  // namespace

double secondsOf(const std::function<void()>& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0.0 : n % 2 ? values[n / 2] : 0.5 * (values[n / 2 - 1] + values[n / 2]);
}

int64_t residentBytes() {
    return statusKilobytes("VmRSS:") * 1024;
}
int64_t peakResidentBytes() {
    return statusKilobytes("VmHWM:") * 1024;
}

void resetPeakResident() {
    // Writing 5 resets the peak resident set size of the process.
    std::ofstream("/proc/self/clear_refs") << "5";
}

double streamingBandwidth(size_t bytes, int threads, int runs) {
    const size_t n = bytes / sizeof(float);
    std::vector<float> in(n, 1.0f), out(n, 0.0f);
    std::vector<double> times;
    for (int r = 0; r < runs; ++r)
        times.push_back(secondsOf([&] {
            std::vector<std::thread> workers;
            for (int t = 0; t < threads; ++t)
                workers.emplace_back([&, t] {
                    // Plain pointers: a loop through the captured vectors
                    // may reload their data pointers at every store and run
                    // scalar, measuring the loop rather than the memory.
                    const float* source = in.data() + n * size_t(t) / size_t(threads);
                    const float* end = in.data() + n * size_t(t + 1) / size_t(threads);
                    float* target = out.data() + (source - in.data());
                    const float k = 1.0001f;
                    while (source != end) *target++ = *source++ * k;
                });
            for (std::thread& worker : workers) worker.join();
        }));
    // A ceiling is the best the machine does: other work on it only ever
    // slows a run down.
    return 2.0 * double(bytes) / *std::min_element(times.begin(), times.end());
}

}  // namespace compare
