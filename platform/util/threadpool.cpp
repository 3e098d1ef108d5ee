#include "util/threadpool.h"

#include <iostream>
#include <unordered_map>
#include <vector>

namespace Util {
namespace {

// The pool whose worker this thread is, and whether its job is a limited one.
thread_local ThreadPool* t_pool = nullptr;
thread_local bool t_limited = false;
thread_local int t_blockingDepth = 0;

}  // namespace

ThreadPool::ThreadPool(size_t threads, size_t jobLimit) : m_target(threads), m_jobLimit(jobLimit) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (size_t i = 0; i < threads; ++i) startThread();
}

ThreadPool::~ThreadPool() {
    std::list<Worker> workers;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        workers.swap(m_workers);
    }
    m_wake.notify_all();
    for (Worker& w : workers)
        if (w.thread.joinable() && w.thread.get_id() != std::this_thread::get_id()) w.thread.join();
}

void ThreadPool::startThread() {
    m_workers.emplace_back();
    Worker* worker = &m_workers.back();
    ++m_live;
    worker->thread = std::thread([this, worker] { workerLoop(worker); });
}

bool ThreadPool::surplus() const {
    return m_live - m_blocked > m_target;
}

void ThreadPool::resize(size_t threads, size_t jobLimit) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_target = threads;
    m_jobLimit = jobLimit;
    while (m_live - m_blocked < m_target) startThread();
    lock.unlock();
    m_wake.notify_all();  // surplus workers leave, the new limit may start more jobs
}

size_t ThreadPool::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_target;
}

void ThreadPool::submit(const JobPtr& job, bool limited) {
    submit(std::vector<JobPtr>{job}, limited);
}

void ThreadPool::submit(const std::vector<JobPtr>& jobs, bool limited) {
    if (jobs.empty()) return;
    std::vector<uint64_t> priorities;  // asked outside the lock
    for (const JobPtr& job : jobs) priorities.push_back(job->getPriority());
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (size_t i = 0; i < jobs.size(); ++i)
            (limited ? m_limited : m_unlimited).insert(Entry{priorities[i], m_sequence++, jobs[i]});
    }
    if (jobs.size() == 1)
        m_wake.notify_one();
    else
        m_wake.notify_all();
}

void ThreadPool::reprioritize() {
    std::vector<JobPtr> jobs;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (std::set<Entry>* queue : {&m_limited, &m_unlimited})
            for (const Entry& e : *queue) jobs.push_back(e.job);
    }
    // Priorities are asked outside the lock (a job may take its render's
    // lock to answer); jobs queued meanwhile keep theirs.
    std::unordered_map<const Job*, uint64_t> priorities;
    for (const JobPtr& job : jobs) priorities[job.get()] = job->getPriority();
    std::lock_guard<std::mutex> lock(m_mutex);
    for (std::set<Entry>* queue : {&m_limited, &m_unlimited}) {
        std::set<Entry> reordered;
        for (const Entry& e : *queue) {
            const auto found = priorities.find(e.job.get());
            reordered.insert(
                Entry{found == priorities.end() ? e.priority : found->second, e.sequence, e.job});
        }
        queue->swap(reordered);
    }
}

size_t ThreadPool::queuedJobs() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_limited.size() + m_unlimited.size();
}

bool ThreadPool::takeJob(Entry& entry, bool& limited) {
    if (!m_unlimited.empty()) {
        entry = *m_unlimited.begin();
        m_unlimited.erase(m_unlimited.begin());
        limited = false;
        return true;
    }
    if (!m_limited.empty() && m_runningLimited < m_jobLimit) {
        entry = *m_limited.begin();
        m_limited.erase(m_limited.begin());
        limited = true;
        ++m_runningLimited;
        return true;
    }
    return false;
}

void ThreadPool::workerLoop(Worker* self) {
    t_pool = this;
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (m_stopping || surplus()) break;
        Entry entry{};
        bool limited = false;
        if (!takeJob(entry, limited)) {
            ++m_idle;
            m_wake.wait(lock);
            --m_idle;
            continue;
        }
        lock.unlock();
        t_limited = limited;
        try {
            entry.job->run();
        } catch (const std::exception& e) {
            std::cerr << "ThreadPool: job failed: " << e.what() << std::endl;
        } catch (...) {
            std::cerr << "ThreadPool: job failed" << std::endl;
        }
        entry.job.reset();  // released outside the lock
        lock.lock();
        if (limited) {
            --m_runningLimited;
            // This thread takes the next job itself; another is woken only
            // when the next is an unlimited one and a limited one could start
            // beside it (a wake-up that finds nothing costs a system call).
            if (!m_unlimited.empty() && !m_limited.empty()) m_wake.notify_one();
        }
    }
    --m_live;
    t_pool = nullptr;
    if (m_stopping) return;  // the destructor joins it
    // A surplus worker leaves on its own: nobody waits to join it.
    self->thread.detach();
    m_workers.remove_if([self](const Worker& w) { return &w == self; });
}

void ThreadPool::beginBlocking() {
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_blocked;
    if (t_limited) --m_runningLimited;
    // Someone must run the jobs this one waits for.
    if (m_idle == 0 && m_live - m_blocked < m_target && !m_stopping) startThread();
    lock.unlock();
    m_wake.notify_one();
}

void ThreadPool::endBlocking() {
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_blocked;
    if (t_limited) ++m_runningLimited;
}

// Nested scopes count once.
ThreadPool::Blocking::Blocking() : m_pool(t_blockingDepth++ == 0 ? t_pool : nullptr) {
    if (m_pool) m_pool->beginBlocking();
}

ThreadPool::Blocking::~Blocking() {
    --t_blockingDepth;
    if (m_pool) m_pool->endBlocking();
}

}  // namespace Util
