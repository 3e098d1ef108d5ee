// Bytes bound for places in one open file, queued by any thread and written
// by whichever thread finds no one writing, so that a render thread that
// delivers a tile while another writes goes back to rendering instead of
// waiting for the file.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace TESSERA {
namespace Private {

class WriteQueue {
public:
    // Threads wait for the writer only while more than `boundBytes` are
    // queued.
    explicit WriteQueue(size_t boundBytes) : m_boundBytes(boundBytes) {}

    void setFile(int fd) { m_fd = fd; }

    // Copies `size` bytes, to be written at `offset`; writes nothing. Once
    // a write failed, queues nothing and gives that failure's words.
    std::string add(uint64_t offset, const void* bytes, size_t size);

    // Writes what is queued, unless another thread is writing: then waits
    // only while the queue is over its bound, or with `all`, until every
    // queued byte is in the file. The first failure's words, or empty.
    std::string write(bool all);

private:
    struct Pending {
        uint64_t offset;
        std::vector<char> bytes;
    };
    std::string writeOne(const Pending& pending) const;

    const size_t m_boundBytes;
    int m_fd = -1;
    std::mutex m_mutex;  // guards all below; never held while writing
    std::condition_variable m_progress;
    std::deque<Pending> m_queue;
    size_t m_queuedBytes = 0;
    bool m_writing = false;
    std::vector<std::vector<char>> m_spare;  // buffers written, for the next bytes
    static constexpr size_t kSpareBuffers = 8;
    size_t m_unflushedBytes = 0;  // written since the disk was last asked to start
    static constexpr size_t kFlushBytes = size_t(8) << 20;
    std::string m_error;
};

}  // namespace Private
}  // namespace TESSERA
