// An allocator of the test's own, with its own swap directory, so budgets
// and counters start from zero whatever ran before in the process.
#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "imagebuffer.h"
#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/imagebuffer_imp.h"
#include "rendersystem/images/speculativecache.h"

namespace TESSERA {
namespace testing {

class LocalAllocator {
public:
    explicit LocalAllocator(std::string directory = std::string())
        : m_dir(directory.empty() ? uniqueDirectory() : std::filesystem::path(directory)),
          m_ownsDir(directory.empty()) {
        if (m_ownsDir) std::filesystem::create_directories(m_dir);
        allocator = std::make_unique<Private::ImageAllocator>(m_dir.string());
    }
    ~LocalAllocator() {
        allocator.reset();
        if (m_ownsDir) std::filesystem::remove_all(m_dir);
    }

    ImageBuffer make(uint64_t channels, const UTIL::Rect& bounds,
                     const std::string& comment = "test image") {
        return Private::ImageBufferAccess::wrap(
            new ImageBuffer::Impl(channels, bounds, comment, allocator.get()));
    }

    // Swap files in the directory.
    std::vector<std::filesystem::path> swapFiles() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir))
            files.push_back(entry.path());
        return files;
    }

    const std::filesystem::path& directory() const { return m_dir; }

    std::unique_ptr<Private::ImageAllocator> allocator;

private:
    static std::filesystem::path uniqueDirectory() {
        static std::atomic<int> counter{0};
        return std::filesystem::temp_directory_path() /
               ("tessera_swap_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    }

    std::filesystem::path m_dir;
    bool m_ownsDir;
};

// Writes a value unique to (seed, x, y, channel) into every channel of a locked image.
inline void writePattern(const IMGLIB::Image* image, uint32_t seed) {
    const int64_t n = image->rowBytes ? image->width() : 0;
    const int channels = static_cast<int>(__builtin_popcountll(image->channels));
    for (int64_t y = image->y1; y < image->y2; ++y) {
        float* row = image->row(y);
        for (int64_t i = 0; i < n * channels; ++i)
            row[i] = static_cast<float>(seed * 1000003u + static_cast<uint32_t>(y * 4099 + i));
    }
}

inline bool hasPattern(const IMGLIB::Image* image, uint32_t seed) {
    const int64_t n = image->width();
    const int channels = static_cast<int>(__builtin_popcountll(image->channels));
    for (int64_t y = image->y1; y < image->y2; ++y) {
        const float* row = image->row(y);
        for (int64_t i = 0; i < n * channels; ++i)
            if (row[i] != static_cast<float>(seed * 1000003u + static_cast<uint32_t>(y * 4099 + i)))
                return false;
    }
    return true;
}

}  // namespace testing
}  // namespace TESSERA
