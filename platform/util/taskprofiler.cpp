#include "util/taskprofiler.h"

#include <utility>

namespace UTIL {

void TaskProfiler::addTime(const std::string& category, double ms) {
    std::lock_guard<std::mutex> lock(m_mutex);
    Entry& e = m_entries[category];
    ++e.count;
    e.milliseconds += ms;
}

uint64_t TaskProfiler::getCount(const std::string& category) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(category);
    return it == m_entries.end() ? 0 : it->second.count;
}

double TaskProfiler::getTime(const std::string& category) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_entries.find(category);
    return it == m_entries.end() ? 0.0 : it->second.milliseconds;
}

std::map<std::string, TaskProfiler::Entry> TaskProfiler::snapshot() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries;
}

void TaskProfiler::reset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_entries.clear();
}

TaskProfiler::Scope::Scope(TaskProfiler& profiler, std::string category)
    : m_profiler(profiler),
      m_category(std::move(category)),
      m_start(std::chrono::steady_clock::now()) {}

TaskProfiler::Scope::~Scope() {
    m_profiler.addTime(m_category, millisecondsSince(m_start));
}

}  // namespace UTIL
