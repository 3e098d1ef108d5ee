// Writing rendered outputs with OpenImageIO.
#include <OpenImageIO/imagebuf.h>

#include <filesystem>
#include <iostream>

#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"

namespace TESSERA {

struct FileWriter::Target {
    RenderDescription output;
    std::vector<FileOutParams> files;
    OIIO::ImageBuf pixels;
    std::vector<int> slots;  // file channel -> output channel bit
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
    target->files = files;
    static const char* const names[5] = {"R", "G", "B", "A", "Z"};
    std::vector<std::string> channelNames;
    for (int bit = 0; bit < 5; ++bit)
        if (output.channels & (uint64_t(1) << bit)) {
            channelNames.push_back(names[bit]);
            target->slots.push_back(bit);
        }
    const UTIL::Rect& r = output.rect;
    OIIO::ImageSpec spec(int(r.width()), int(r.height()), int(channelNames.size()),
                         OIIO::TypeDesc::FLOAT);
    spec.x = int(r.xmin);
    spec.y = int(r.ymin);
    spec.full_x = spec.x;
    spec.full_y = spec.y;
    spec.channelnames = channelNames;
    spec.alpha_channel = (output.channels & IMGLIB::CHANNEL_A)
                             ? IMGLIB::GetChannelIndex(output.channels & 31, IMGLIB::CHANNEL_A)
                             : -1;
    target->pixels.reset(spec, OIIO::InitializePixels::Yes);
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
    ImageBuffer tile = image;
    ImageBuffer_LockScoper lock(tile);
    const IMGLIB::Image* img = tile.getImage();
    const UTIL::Rect area = tile.getBounds().intersection(target->output.rect);
    std::vector<float> rgba(target->slots.size());
    const int64_t pixelBytes = IMGLIB::GetPixelBytes(img->channels);
    std::lock_guard<std::mutex> guard(m_mutex);  // ImageBuf writes from one thread at a time
    for (int64_t y = area.ymin; y < area.ymax; ++y)
        for (int64_t x = area.xmin; x < area.xmax; ++x) {
            const float* p = IMGLIB::GetPixelAddress(img, x, y, pixelBytes);
            for (size_t c = 0; c < target->slots.size(); ++c) {
                const int slot =
                    IMGLIB::GetChannelIndex(img->channels, uint64_t(1) << target->slots[c]);
                rgba[c] = slot >= 0 ? p[slot] : 0.0f;
            }
            target->pixels.setpixel(int(x), int(y), rgba.data(), int(rgba.size()));
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
    for (const FileOutParams& file : target->files) {
        std::error_code ec;
        const std::filesystem::path dir = std::filesystem::path(file.path).parent_path();
        if (!dir.empty()) std::filesystem::create_directories(dir, ec);
        target->pixels.specmod().attribute("compression", file.compression);
        target->pixels.set_write_format(typeOf(file));
        if (!target->pixels.write(file.path)) {
            const std::string error =
                "cannot write '" + file.path + "': " + target->pixels.geterror();
            std::cerr << error << std::endl;
            std::lock_guard<std::mutex> lock(m_mutex);
            m_errors += error + "\n";
        }
    }
}

std::string FileWriter::getErrors() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors;
}

}  // namespace TESSERA
