// Writing rendered outputs with OpenImageIO: tiled EXR files are written
// tile by tile as tiles arrive; other formats when the output is complete.
#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imageio.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "rendermanager.h"
#include "util/exceptions.h"

namespace TESSERA {

namespace {

void makeParentDirectory(const std::string& path) {
    std::error_code ec;
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    if (!dir.empty()) std::filesystem::create_directories(dir, ec);
}

// A file that notices every failed write (a full disk, a file size limit)
// and from then on takes writes without doing them: the image library never
// sees the failure (OpenEXR's tile writer waits for ever after one), and
// the writer reports it, naming the file and the system's reason.
class CheckedFile : public OIIO::Filesystem::IOFile {
public:
    explicit CheckedFile(const std::string& path) : IOFile(path, Write) {
        if (!m_file) fail();
    }
    size_t write(const void* buf, size_t size) override {
        if (!m_failed && IOFile::write(buf, size) != size) fail();
        return size;
    }
    size_t pwrite(const void* buf, size_t size, int64_t offset) override {
        if (!m_failed && IOFile::pwrite(buf, size, offset) != size) fail();
        return size;
    }
    void close() override {
        if (m_file && !m_failed && (std::fflush(m_file) != 0 || std::ferror(m_file))) fail();
        IOFile::close();
    }
    // Empty when every byte reached the file.
    const std::string& failure() const { return m_failure; }

private:
    void fail() {
        m_failed = true;
        m_failure = std::strerror(errno ? errno : EIO);
    }
    bool m_failed = false;
    std::string m_failure;
};

// A new name in the file's own folder (so the rename cannot cross file
// systems), hidden, keeping the extension the image library goes by.
std::string temporaryPathFor(const std::string& path) {
    static std::atomic<uint64_t> counter{0};
    const std::filesystem::path p(path);
    const std::string name = "." + p.stem().string() + ".tessera-" + std::to_string(::getpid()) +
                             "-" + std::to_string(++counter) + p.extension().string();
    return (p.parent_path() / name).string();
}

}  // namespace

// One file of an output: the image library's writer and the file under it.
// It is written under a temporary name and renamed when complete, so an
// interrupted render never leaves a truncated image under the final name.
struct FileWriter::Stream {
    FileOutParams params;
    std::string temporary;  // where the bytes go until the file is complete
    std::unique_ptr<CheckedFile> file;
    std::unique_ptr<OIIO::ImageOutput> out;
    std::string error;  // the first failure, with the path

    // A file never finished (the render failed to start) is removed.
    ~Stream() {
        if (!out) return;
        failed("the render did not finish");
        close();
    }

    // Opens the file for spec; false (and `error` set) when it cannot.
    bool open(const OIIO::ImageSpec& spec) {
        makeParentDirectory(params.path);
        out = OIIO::ImageOutput::create(params.path);
        if (!out) return failed(OIIO::geterror());
        temporary = temporaryPathFor(params.path);
        if (out->supports("ioproxy")) {
            file = std::make_unique<CheckedFile>(temporary);
            if (!file->failure().empty()) return failed(file->failure());
            out->set_ioproxy(file.get());
        }
        if (!out->open(temporary, spec)) return failed(out->geterror());
        return true;
    }
    // Whether the library and the file took everything so far.
    bool check(bool ok) {
        if (!error.empty()) return false;
        if (file && !file->failure().empty()) return failed(file->failure());
        if (!ok) return failed(out->geterror());
        return true;
    }
    // Closes the file (once) and gives it its name; a file that failed is
    // removed.
    bool close() {
        if (!out) return error.empty();
        const bool ok = check(out->close());
        out.reset();
        if (file) file->close();
        if (ok && file && !file->failure().empty()) failed(file->failure());
        if (error.empty() && std::rename(temporary.c_str(), params.path.c_str()) != 0)
            failed(std::strerror(errno));
        if (!error.empty()) std::remove(temporary.c_str());
        return error.empty();
    }
    bool failed(const std::string& reason) {
        if (error.empty()) error = "cannot write '" + params.path + "': " + reason;
        return false;
    }
};

struct FileWriter::Target {
    RenderDescription output;
    std::vector<int> slots;  // file channel -> output channel bit
    OIIO::ImageSpec spec;    // float pixels over the output's rectangle
    // Files written as tiles arrive, and files written at the end from
    // `pixels` (allocated only when there are such files).
    std::vector<std::unique_ptr<Stream>> streams;
    std::vector<FileOutParams> buffered;
    OIIO::ImageBuf pixels;
};

namespace {

OIIO::TypeDesc typeOf(const FileOutParams& file) {
    std::string name = file.dataType;
    if (name.empty()) {
        const std::string ext = std::filesystem::path(file.path).extension().string();
        name = ext == ".exr" ? "half" : (ext == ".tif" || ext == ".tiff") ? "uint16" : "uint8";
    }
    if (name == "float") return OIIO::TypeDesc::FLOAT;
    if (name == "uint8") return OIIO::TypeDesc::UINT8;
    if (name == "uint16") return OIIO::TypeDesc::UINT16;
    return OIIO::TypeDesc::HALF;
}

}  // namespace

void FileWriter::addOutput(size_t index, const RenderDescription& output,
                           const std::vector<FileOutParams>& files) {
    auto target = std::make_shared<Target>();
    target->output = output;
    static const char* const names[5] = {"R", "G", "B", "A", "Z"};
    std::vector<std::string> channelNames;
    for (int bit = 0; bit < 5; ++bit)
        if (output.channels & (uint64_t(1) << bit)) {
            channelNames.push_back(names[bit]);
            target->slots.push_back(bit);
        }
    const UTIL::Rect& r = output.rect;
    OIIO::ImageSpec& spec = target->spec;
    spec = OIIO::ImageSpec(int(r.width()), int(r.height()), int(channelNames.size()),
                           OIIO::TypeDesc::FLOAT);
    spec.x = spec.full_x = int(r.xmin);
    spec.y = spec.full_y = int(r.ymin);
    spec.channelnames = channelNames;
    const auto alpha = std::find(channelNames.begin(), channelNames.end(), "A");
    spec.alpha_channel = alpha == channelNames.end() ? -1 : int(alpha - channelNames.begin());

    // EXR takes tiles in any order: when the render's tiles line up with
    // the file's, each is written as it arrives.
    const int64_t tw = RenderManager::getGlobalTileWidth(),
                  th = RenderManager::getGlobalTileHeight();
    const bool aligned = r.xmin % tw == 0 && r.ymin % th == 0;
    for (const FileOutParams& file : files) {
        const bool exr = std::filesystem::path(file.path).extension() == ".exr";
        if (!exr || !aligned) {
            target->buffered.push_back(file);
            continue;
        }
        OIIO::ImageSpec fileSpec = spec;
        fileSpec.set_format(typeOf(file));
        fileSpec.tile_width = int(tw);
        fileSpec.tile_height = int(th);
        fileSpec.attribute("compression", file.compression);
        fileSpec.attribute("openexr:lineOrder", "randomY");
        auto stream = std::make_unique<Stream>();
        stream->params = file;
        if (!stream->open(fileSpec)) throw UTIL::ErrorException(stream->error);
        target->streams.push_back(std::move(stream));
    }
    if (!target->buffered.empty()) target->pixels.reset(spec, OIIO::InitializePixels::Yes);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_targets[index] = target;
}

void FileWriter::tileDone(const ImageBuffer& image, const OutputTileID& id) {
    std::shared_ptr<Target> target;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_targets.find(id.outputIndex);
        if (it == m_targets.end()) return;
        target = it->second;
    }
    // The tile in the file's channel layout, as floats.
    ImageBuffer tile = image;
    ImageBuffer_LockScoper lock(tile);
    const IMGLIB::Image* img = tile.getImage();
    const UTIL::Rect area = tile.getBounds().intersection(target->output.rect);
    if (area.isNull()) return;
    const size_t n = target->slots.size();
    std::vector<float> data(static_cast<size_t>(area.area()) * n);
    const int64_t pixelBytes = IMGLIB::GetPixelBytes(img->channels);
    int slot[5];
    for (size_t c = 0; c < n; ++c)
        slot[c] = IMGLIB::GetChannelIndex(img->channels, uint64_t(1) << target->slots[c]);
    float* d = data.data();
    for (int64_t y = area.ymin; y < area.ymax; ++y) {
        const float* p = IMGLIB::GetPixelAddress(img, area.xmin, y, pixelBytes);
        for (int64_t x = area.xmin; x < area.xmax; ++x, p += pixelBytes / 4)
            for (size_t c = 0; c < n; ++c) *d++ = slot[c] >= 0 ? p[slot[c]] : 0.0f;
    }

    // Streamed files share the render's tile grid, so this is one file tile;
    // a tile cut by the image's edge is padded to the full tile size.
    const float* tilePixels = data.data();
    std::vector<float> padded;
    if (!target->streams.empty()) {
        const int64_t tw = target->streams.front()->out->spec().tile_width;
        const int64_t th = target->streams.front()->out->spec().tile_height;
        if (area.width() != tw || area.height() != th) {
            padded.assign(static_cast<size_t>(tw * th) * n, 0.0f);
            for (int64_t row = 0; row < area.height(); ++row)
                std::copy_n(data.data() + row * area.width() * int64_t(n),
                            area.width() * int64_t(n), padded.data() + row * tw * int64_t(n));
            tilePixels = padded.data();
        }
    }

    std::lock_guard<std::mutex> guard(m_mutex);  // files and buffers, one writer at a time
    if (!target->buffered.empty())
        target->pixels.set_pixels(OIIO::ROI(int(area.xmin), int(area.xmax), int(area.ymin),
                                            int(area.ymax), 0, 1, 0, int(n)),
                                  OIIO::TypeDesc::FLOAT, data.data());
    // A file that cannot be written ends the render, naming the file.
    for (const std::unique_ptr<Stream>& stream : target->streams)
        if (stream->error.empty() &&
            !stream->check(stream->out->write_tile(int(area.xmin), int(area.ymin), 0,
                                                   OIIO::TypeDesc::FLOAT, tilePixels))) {
            m_errors += stream->error + "\n";
            throw UTIL::ErrorException(stream->error);
        }
}

void FileWriter::outputFinished(size_t outputIndex) {
    std::shared_ptr<Target> target;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_targets.find(outputIndex);
        if (it == m_targets.end()) return;
        target = it->second;
    }
    std::string errors;
    for (const std::unique_ptr<Stream>& stream : target->streams)
        if (!stream->close()) errors += stream->error + "\n";
    for (const FileOutParams& file : target->buffered) {
        OIIO::ImageSpec fileSpec = target->pixels.spec();
        fileSpec.set_format(typeOf(file));
        fileSpec.attribute("compression", file.compression);
        Stream stream;
        stream.params = file;
        if (stream.open(fileSpec)) stream.check(target->pixels.write(stream.out.get()));
        if (!stream.close()) errors += stream.error + "\n";
    }
    if (errors.empty()) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_errors += errors;
    }
    // The render fails with the first error; all of them are in getErrors().
    throw UTIL::ErrorException(errors.substr(0, errors.find('\n')));
}

void FileWriter::renderFinished(RenderStatus status, const std::string&) {
    if (status == RenderStatus::Success) return;
    std::map<size_t, std::shared_ptr<Target>> targets;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        targets = m_targets;
    }
    // Files of outputs the render did not finish go.
    for (const auto& entry : targets)
        for (const std::unique_ptr<Stream>& stream : entry.second->streams)
            if (stream->out) {
                stream->failed("the render did not finish");
                stream->close();
            }
}

std::string FileWriter::getErrors() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors;
}

}  // namespace TESSERA
