#include "util/threadpool.h"

#include <iostream>

namespace Util {

ThreadPool::ThreadPool(size_t threads, size_t jobLimit) : m_jobLimit(jobLimit) {
    startThreads(threads);
}

ThreadPool::~ThreadPool() {
    stopThreads();
}

void ThreadPool::startThreads(size_t count) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = false;
    for (size_t i = 0; i < count; ++i) m_threads.emplace_back([this] { workerLoop(); });
}

void ThreadPool::stopThreads() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
        threads.swap(m_threads);
    }
    m_wake.notify_all();
    for (std::thread& t : threads) t.join();
}

void ThreadPool::resize(size_t threads, size_t jobLimit) {
    stopThreads();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_jobLimit = jobLimit;
    }
    startThreads(threads);
    m_wake.notify_all();
}

size_t ThreadPool::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_threads.size();
}

void ThreadPool::submit(const JobPtr& job, bool limited) {
    submit(std::vector<JobPtr>{job}, limited);
}

void ThreadPool::submit(const std::vector<JobPtr>& jobs, bool limited) {
    if (jobs.empty()) return;
    std::vector<uint32_t> priorities;  // asked outside the lock
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
    std::lock_guard<std::mutex> lock(m_mutex);
    for (std::set<Entry>* queue : {&m_limited, &m_unlimited}) {
        std::set<Entry> reordered;
        for (const Entry& e : *queue)
            reordered.insert(Entry{e.job->getPriority(), e.sequence, e.job});
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

void ThreadPool::workerLoop() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (m_stopping) return;
        Entry entry{};
        bool limited = false;
        if (!takeJob(entry, limited)) {
            m_wake.wait(lock);
            continue;
        }
        lock.unlock();
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
}

}  // namespace Util
