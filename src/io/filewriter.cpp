// Writing rendered outputs to files: each tile goes to the output's files as
// it arrives, and each file writes what became whole (see outputfile.h).
#include <algorithm>

#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "io/outputfile.h"
#include "rendermanager.h"
#include "util/exceptions.h"

namespace TESSERA {

struct FileWriter::Target {
    RenderDescription output;
    std::vector<uint64_t> channels;  // the files' channels, in order
    std::vector<std::unique_ptr<Private::OutputFile>> files;
};

FileWriter::FileWriter() = default;
FileWriter::~FileWriter() = default;

void FileWriter::addOutput(size_t index, const RenderDescription& output,
                           const std::vector<FileOutParams>& files) {
    auto target = std::make_shared<Target>();
    target->output = output;
    Private::OutputLayout layout;
    layout.rect = output.rect;
    layout.format = output.task ? output.task->getFormat() : UTIL::Rect();
    layout.tileWidth = RenderManager::getGlobalTileWidth();
    layout.tileHeight = RenderManager::getGlobalTileHeight();
    // Every channel under its name, in bit order (R, G, B, A, Z, then the
    // named ones).
    for (int bit = 0; bit < IMGLIB::MAX_CHANNELS; ++bit)
        if (output.channels >> bit & 1) {
            layout.channelNames.push_back(IMGLIB::GetChannelName(uint64_t(1) << bit));
            target->channels.push_back(uint64_t(1) << bit);
        }
    for (const FileOutParams& file : files)
        target->files.push_back(Private::openOutputFile(file, layout));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_targets[index] = target;
}

std::shared_ptr<FileWriter::Target> FileWriter::target(size_t outputIndex) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_targets.find(outputIndex);
    return it == m_targets.end() ? nullptr : it->second;
}

void FileWriter::tileDone(const ImageBuffer& image, const OutputTileID& id) {
    const std::shared_ptr<Target> target = this->target(id.outputIndex);
    if (!target) return;
    ImageBuffer tile = image;
    ImageBuffer_LockScoper lock(tile);
    const IMGLIB::Image* img = tile.getImage();
    const UTIL::Rect area = tile.getBounds().intersection(target->output.rect);
    if (area.isNull()) return;
    // The files read the tile where it lies.
    const int64_t pixelBytes = IMGLIB::GetPixelBytes(img->channels);
    const float* first = IMGLIB::GetPixelAddress(img, area.xmin, area.ymin, pixelBytes);
    Private::PixelPiece piece{area, {}, pixelBytes, img->rowBytes};
    for (uint64_t channel : target->channels) {
        const int slot = IMGLIB::GetChannelIndex(img->channels, channel);
        piece.channels.push_back(slot >= 0 ? first + slot : nullptr);
    }
    try {
        for (const auto& file : target->files) file->write(piece);
    } catch (const UTIL::ErrorException& e) {
        remember(e.what());
        throw;
    }
}

void FileWriter::outputFinished(size_t outputIndex) {
    const std::shared_ptr<Target> target = this->target(outputIndex);
    if (!target) return;
    std::string first;
    for (const auto& file : target->files) try {
            file->finish();
        } catch (const UTIL::ErrorException& e) {
            remember(e.what());
            if (first.empty()) first = e.what();
        }
    // The render fails with the first error; all of them are in getErrors().
    if (!first.empty()) throw UTIL::ErrorException(first);
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
        for (const auto& file : entry.second->files) file->abandon();
}

void FileWriter::remember(const std::string& error) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_errors.find(error + "\n") == std::string::npos) m_errors += error + "\n";
}

std::string FileWriter::getErrors() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_errors;
}

}  // namespace TESSERA
