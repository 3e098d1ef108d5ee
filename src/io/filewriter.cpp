// Writing rendered outputs with OpenImageIO: tiled EXR files are written
// tile by tile as tiles arrive; other formats when the output is complete.
#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "rendermanager.h"

namespace TESSERA {

struct FileWriter::Target {
    RenderDescription output;
    std::vector<int> slots;  // file channel -> output channel bit
    OIIO::ImageSpec spec;    // float pixels over the output's rectangle
    // Files written as tiles arrive, and files written at the end from
    // `pixels` (allocated only when there are such files).
    std::vector<std::pair<FileOutParams, std::unique_ptr<OIIO::ImageOutput>>> streams;
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

void makeParentDirectory(const std::string& path) {
    std::error_code ec;
    const std::filesystem::path dir = std::filesystem::path(path).parent_path();
    if (!dir.empty()) std::filesystem::create_directories(dir, ec);
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
        std::unique_ptr<OIIO::ImageOutput> out;
        if (exr && aligned) {
            makeParentDirectory(file.path);
            OIIO::ImageSpec fileSpec = spec;
            fileSpec.set_format(typeOf(file));
            fileSpec.tile_width = int(tw);
            fileSpec.tile_height = int(th);
            fileSpec.attribute("compression", file.compression);
            fileSpec.attribute("openexr:lineOrder", "randomY");
            out = OIIO::ImageOutput::create(file.path);
            // The render's workers write tiles in parallel already: OpenImageIO
            // starts no threads of its own for them.
            if (out) out->threads(1);
            if (out && !out->open(file.path, fileSpec)) out.reset();
        }
        if (out)
            target->streams.emplace_back(file, std::move(out));
        else
            target->buffered.push_back(file);
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
        const int64_t tw = target->streams.front().second->spec().tile_width;
        const int64_t th = target->streams.front().second->spec().tile_height;
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
    for (auto& [file, out] : target->streams)
        if (!out->write_tile(int(area.xmin), int(area.ymin), 0, OIIO::TypeDesc::FLOAT, tilePixels))
            m_errors += "cannot write '" + file.path + "': " + out->geterror() + "\n";
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
    for (auto& [file, out] : target->streams)
        if (!out->close()) errors += "cannot write '" + file.path + "': " + out->geterror() + "\n";
    for (const FileOutParams& file : target->buffered) {
        makeParentDirectory(file.path);
        target->pixels.specmod().attribute("compression", file.compression);
        target->pixels.set_write_format(typeOf(file));
        if (!target->pixels.write(file.path))
            errors += "cannot write '" + file.path + "': " + target->pixels.geterror() + "\n";
    }
    if (errors.empty()) return;
    std::cerr << errors;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_errors += errors;
}

std::string FileWriter::getErrors() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors;
}

}  // namespace TESSERA
