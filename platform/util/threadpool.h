// Util::ThreadPool: worker threads that run jobs smallest priority first.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "tessera_export.h"
#include "util/job.h"

namespace Util {

// Jobs wait in a queue ordered by getPriority() (smallest first), then by
// submission. "Limited" jobs (render tiles) run on at most jobLimit threads
// at once, so the pool can keep a thread free for other work (analysis
// jobs). A job that throws is reported on standard error; the worker lives on.
//
// m_mutex guards the queues, the counters and the thread list; workers wait
// on m_wake.
class TESSERA_API ThreadPool {
public:
    explicit ThreadPool(size_t threads, size_t jobLimit);
    // Lets running jobs finish; jobs still queued are dropped.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Changes the thread count and the limit. Running jobs finish on the old
    // threads; queued ones wait for the new.
    void resize(size_t threads, size_t jobLimit);
    size_t size() const;
    void submit(const JobPtr& job, bool limited);
    // Queues all at once, so the first to run is the most urgent of them.
    void submit(const std::vector<JobPtr>& jobs, bool limited);
    // Re-reads the priority of every queued job (the ordering changed).
    void reprioritize();
    size_t queuedJobs() const;

private:
    struct Entry {
        uint32_t priority;
        uint64_t sequence;
        JobPtr job;
        bool operator<(const Entry& o) const {
            return priority != o.priority ? priority < o.priority : sequence < o.sequence;
        }
    };
    void startThreads(size_t count);
    void stopThreads();
    void workerLoop();
    // The next job a worker may run; false when there is none.
    bool takeJob(Entry& entry, bool& limited);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::set<Entry> m_limited;
    std::set<Entry> m_unlimited;
    uint64_t m_sequence = 0;
    size_t m_jobLimit;
    size_t m_runningLimited = 0;
    bool m_stopping = false;
    std::vector<std::thread> m_threads;
};

}  // namespace Util
