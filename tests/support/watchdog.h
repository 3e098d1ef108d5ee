// A watchdog for tests that could hang.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <string>
#include <thread>

namespace TESSERA {
namespace testing {

// Runs body on a thread of its own and rethrows what it throws. A body still
// running after `seconds` ends the test process with a message naming it:
// a hang fails the test at once instead of stalling the suite.
inline void withinSeconds(double seconds, const std::string& what,
                          const std::function<void()>& body) {
    std::packaged_task<void()> task(body);
    std::future<void> done = task.get_future();
    std::thread runner(std::move(task));
    if (done.wait_for(std::chrono::duration<double>(seconds)) != std::future_status::ready) {
        std::fprintf(stderr, "watchdog: %s did not finish within %g s\n", what.c_str(), seconds);
        std::fflush(stderr);
        std::_Exit(3);
    }
    runner.join();
    done.get();
}

}  // namespace testing
}  // namespace TESSERA
