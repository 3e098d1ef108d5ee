#include "io/writequeue.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace TESSERA {
namespace Private {

std::string WriteQueue::add(uint64_t offset, const void* bytes, size_t size) {
    Pending pending{offset, {}};
    {
        // A buffer written before, so that its pages are not faulted in and
        // cleared again.
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_spare.empty()) {
            pending.bytes = std::move(m_spare.back());
            m_spare.pop_back();
        }
    }
    const char* first = static_cast<const char*>(bytes);
    pending.bytes.assign(first, first + size);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_error.empty()) {
        m_queuedBytes += size;
        m_queue.push_back(std::move(pending));
    }
    return m_error;
}

std::string WriteQueue::write(bool all) {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        if (!m_writing) {
            m_writing = true;
            while (!m_queue.empty() && m_error.empty()) {
                Pending pending = std::move(m_queue.front());
                m_queue.pop_front();
                lock.unlock();
                const std::string error = writeOne(pending);
                lock.lock();
                m_queuedBytes -= pending.bytes.size();
                if (m_error.empty()) m_error = error;
                if (m_spare.size() < kSpareBuffers) m_spare.push_back(std::move(pending.bytes));
                m_unflushedBytes += pending.bytes.size();
                if (m_unflushedBytes >= kFlushBytes) {
                    // The disk starts on what is written while the render
                    // goes on, instead of all at once when the file is
                    // closed or renamed.
                    m_unflushedBytes = 0;
                    lock.unlock();
                    ::sync_file_range(m_fd, 0, 0, SYNC_FILE_RANGE_WRITE);
                    lock.lock();
                }
                m_progress.notify_all();
            }
            if (!m_error.empty()) m_queue.clear(), m_queuedBytes = 0;  // never to be written
            m_writing = false;
            m_progress.notify_all();
            return m_error;
        }
        if (!m_error.empty() || (!all && m_queuedBytes <= m_boundBytes)) return m_error;
        m_progress.wait(lock);
    }
}

std::string WriteQueue::writeOne(const Pending& pending) const {
    for (size_t done = 0; done < pending.bytes.size();) {
        const ssize_t n = ::pwrite(m_fd, pending.bytes.data() + done, pending.bytes.size() - done,
                                   off_t(pending.offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return std::strerror(n < 0 ? errno : ENOSPC);
        done += size_t(n);
    }
    return std::string();
}

}  // namespace Private
}  // namespace TESSERA
