// Util::ThreadPool: worker threads that run jobs smallest priority first.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
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
// No call waits for a running job, so any call may come from a job itself.
// A job that must wait for other jobs says so with a Blocking scope: while
// it waits, its place counts as free and a spare thread is started when no
// idle one is left, so the jobs it waits for can run.
//
// m_mutex guards the queues, the counters and the thread list; workers wait
// on m_wake. It is never held while a job runs.
class TESSERA_API ThreadPool {
public:
    explicit ThreadPool(size_t threads, size_t jobLimit);
    // Lets running jobs finish; jobs still queued are dropped.
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    // Changes the thread count and the limit without waiting: missing
    // threads start at once, surplus ones leave after their current job.
    void resize(size_t threads, size_t jobLimit);
    // The threads the pool aims at (not counting spares for blocked jobs).
    size_t size() const;
    void submit(const JobPtr& job, bool limited);
    // Queues all at once, so the first to run is the most urgent of them.
    void submit(const std::vector<JobPtr>& jobs, bool limited);
    // Re-reads the priority of every queued job (the ordering changed).
    void reprioritize();
    size_t queuedJobs() const;

    // Marks the calling thread as waiting for other jobs while it lives. On a
    // thread that is not a worker of a pool it does nothing.
    class TESSERA_API Blocking {
    public:
        Blocking();
        ~Blocking();
        Blocking(const Blocking&) = delete;
        Blocking& operator=(const Blocking&) = delete;

    private:
        ThreadPool* m_pool;
    };

private:
    struct Entry {
        uint64_t priority;
        uint64_t sequence;
        JobPtr job;
        bool operator<(const Entry& o) const {
            return priority != o.priority ? priority < o.priority : sequence < o.sequence;
        }
    };
    struct Worker {
        std::thread thread;
    };
    // Under m_mutex.
    void startThread();
    bool surplus() const;
    void workerLoop(Worker* self);
    // The next job a worker may run; false when there is none.
    bool takeJob(Entry& entry, bool& limited);
    void beginBlocking();
    void endBlocking();

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    std::set<Entry> m_limited;
    std::set<Entry> m_unlimited;
    uint64_t m_sequence = 0;
    size_t m_target;
    size_t m_jobLimit;
    size_t m_runningLimited = 0;
    size_t m_live = 0;     // workers in their loop
    size_t m_idle = 0;     // of which waiting for a job
    size_t m_blocked = 0;  // of which inside a Blocking scope
    bool m_stopping = false;
    std::list<Worker> m_workers;
};

}  // namespace Util
