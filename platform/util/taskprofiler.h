// UTIL::TaskProfiler: thread-safe counts and accumulated times per named category.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "../tessera_export.h"

namespace UTIL {

class TESSERA_API TaskProfiler {
public:
    struct Entry {
        uint64_t count = 0;
        double milliseconds = 0.0;
    };

    // One occurrence of category that took ms milliseconds.
    void addTime(const std::string& category, double ms);

    uint64_t getCount(const std::string& category) const;
    double getTime(const std::string& category) const;  // milliseconds
    // A consistent copy of every category.
    std::map<std::string, Entry> snapshot() const;
    void reset();

    // Times its own lifetime and records it as one occurrence of category.
    class TESSERA_API Scope {
    public:
        Scope(TaskProfiler& profiler, std::string category);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        TaskProfiler& m_profiler;
        std::string m_category;
        std::chrono::steady_clock::time_point m_start;
    };

private:
    mutable std::mutex m_mutex;  // guards m_entries
    std::map<std::string, Entry> m_entries;
};

// Milliseconds since start, as the profiler records them.
inline double millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace UTIL
