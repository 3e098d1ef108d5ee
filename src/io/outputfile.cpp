#include "io/outputfile.h"

#include "io/exrattributes.h"
#include "io/exrcompression.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

// A new name in the file's own folder, hidden, keeping the extension the
// image libraries go by.
std::string temporaryPrefix(const std::filesystem::path& p) {
    return "." + p.stem().string() + ".tessera-";
}

std::string temporaryPathFor(const std::string& path) {
    static std::atomic<uint64_t> counter{0};
    const std::filesystem::path p(path);
    const std::string name = temporaryPrefix(p) + std::to_string(::getpid()) + "-" +
                             std::to_string(++counter) + p.extension().string();
    return (p.parent_path() / name).string();
}

}  // namespace

void removeAbandonedTemporaries(const std::string& path) {
    const std::filesystem::path p(path);
    const std::string prefix = temporaryPrefix(p), extension = p.extension().string();
    std::error_code ec;
    const std::filesystem::path dir = p.parent_path().empty() ? "." : p.parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (name.size() > prefix.size() + extension.size() && name.rfind(prefix, 0) == 0 &&
            name.compare(name.size() - extension.size(), extension.size(), extension) == 0)
            std::filesystem::remove(entry.path(), ec);
    }
}

FileCommit::FileCommit(std::string path)
    : m_path(std::move(path)), m_temporary(temporaryPathFor(m_path)) {
    std::error_code ec;
    const std::filesystem::path dir = std::filesystem::path(m_path).parent_path();
    if (!dir.empty()) std::filesystem::create_directories(dir, ec);
}

bool FileCommit::fail(const std::string& reason) {
    if (m_error.empty()) m_error = "cannot write '" + m_path + "': " + reason;
    return false;
}

bool FileCommit::commit() {
    if (m_error.empty() && std::rename(m_temporary.c_str(), m_path.c_str()) != 0)
        fail(std::strerror(errno));
    if (!m_error.empty()) std::remove(m_temporary.c_str());
    return m_error.empty();
}

std::unique_ptr<OutputFile> openOutputFile(const FileOutParams& params,
                                           const OutputLayout& layout) {
    if (params.layout != "tiled" && params.layout != "scanline")
        throw UTIL::ErrorException("cannot write '" + params.path + "': unknown layout '" +
                                   params.layout + "' (tiled, scanline)");
    for (const FileAttribute& a : params.attributes)
        if (isExrLayoutAttribute(a.name))
            throw UTIL::ErrorException("cannot write '" + params.path + "': attribute '" + a.name +
                                       "' is set by the output itself");
    if (!params.views.empty() && std::filesystem::path(params.path).extension() != ".exr")
        throw UTIL::ErrorException("cannot write '" + params.path + "': only EXR files hold views");
    if (params.parts &&
        (std::filesystem::path(params.path).extension() != ".exr" || params.layout != "tiled"))
        throw UTIL::ErrorException("cannot write '" + params.path +
                                   "': only tiled EXR files are written one part per layer");
    if (params.tileSize < 0 || params.tileSize > 65536)
        throw UTIL::ErrorException("cannot write '" + params.path + "': tile size " +
                                   std::to_string(params.tileSize) + " is not from 1 to 65536");
    // A zip or DWA level out of range is refused whichever writer takes it.
    if (std::filesystem::path(params.path).extension() == ".exr")
        parseExrCompression(params.path, params.compression);
    if (std::filesystem::path(params.path).extension() == ".exr" && params.layout == "tiled") {
        OutputLayout tiled = layout;
        if (params.tileSize > 0) tiled.tileWidth = tiled.tileHeight = params.tileSize;
        // Never a tile larger than the image.
        tiled.tileWidth =
            std::clamp<int64_t>(tiled.tileWidth, 1, std::max<int64_t>(1, layout.rect.width()));
        tiled.tileHeight =
            std::clamp<int64_t>(tiled.tileHeight, 1, std::max<int64_t>(1, layout.rect.height()));
        if (std::unique_ptr<OutputFile> file = openExrTiledFile(params, tiled)) return file;
    }
    return openScanlineFile(params, layout);
}

}  // namespace Private
}  // namespace TESSERA
