// What the fuzz targets share: a render set up to stay small and quick, and
// the bytes of an input written to a file of its own.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string>

#include "fileio.h"
#include "renderimage.h"
#include "rendermanager.h"

namespace TESSERA {
namespace fuzzing {

// One thread, small tiles, a small budget, nothing kept between inputs.
inline void setUpRenders() {
    static const bool done = [] {
        RenderManager::setRenderThreads(1);
        RenderManager::setGlobalTileSize(32, 32);
        RenderManager::SetMaxImageMemory(256);
        RenderManager::setSpeculativeCachingEnable(false);
        useRenderThreadsForFiles();
        return true;
    }();
    (void)done;
}

// A folder of this process's own under the temporary folder.
inline std::string scratchFolder() {
    static const std::string folder = [] {
        std::string f = "/tmp/tessera-fuzz-" + std::to_string(::getpid());
        ::mkdir(f.c_str(), 0700);
        return f;
    }();
    return folder;
}

// The input as a file named `name` in the scratch folder, forgotten by the
// file cache (the next input reuses the name).
inline std::string asFile(const uint8_t* data, size_t size, const std::string& name) {
    const std::string path = scratchFolder() + "/" + name;
    forgetFile(path);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(data), std::streamsize(size));
    return path;
}

// Options that cancel a render still running after three seconds: an input
// may rightly ask for much work (a large source resized down), and what the
// fuzzer looks for there is a render that does not stop when cancelled,
// which its ten-second timeout reports.
inline RenderOptions withDeadline() {
    RenderOptions options;
    const auto start = std::chrono::steady_clock::now();
    options.progress = [start](const RenderProgress&) {
        if (std::chrono::steady_clock::now() - start > std::chrono::seconds(3))
            throw std::runtime_error("the render took longer than the fuzzer waits");
    };
    return options;
}

// Renders every channel of `task` over its data window, cut to a small box.
inline void renderSmall(const TaskPtr& task) {
    uint64_t channels = 0;
    UTIL::Region region;
    task->getOutputDescription(&channels, &region);
    const UTIL::Rect box = region.boundingBox().intersection(UTIL::Rect(-64, -64, 192, 192));
    if (!box.isNull() && channels) renderImage(task, box, channels, withDeadline());
}

}  // namespace fuzzing
}  // namespace TESSERA
