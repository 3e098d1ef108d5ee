// Files being written from a render: pixels arrive as pieces of the output,
// in any order and from any thread, and each file takes its blocks (tiles or
// bands of rows) as soon as they are whole, so memory holds only the blocks
// still being gathered, never the image.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "fileio.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

// Pixels of a rectangle in memory, as floats: channel c of pixel (x, y) is
// at channels[c] + (y - rect.ymin) * lineStride + (x - rect.xmin) *
// pixelStride (strides in bytes). A null channel reads as 0.
struct PixelPiece {
    UTIL::Rect rect;
    std::vector<const float*> channels;
    int64_t pixelStride = 0;
    int64_t lineStride = 0;

    const float* at(size_t channel, int64_t x, int64_t y) const {
        return reinterpret_cast<const float*>(
            reinterpret_cast<const unsigned char*>(channels[channel]) +
            (y - rect.ymin) * lineStride + (x - rect.xmin) * pixelStride);
    }
};

// What a file holds: the output's rectangle (the data window), its format
// (the display window) and its channels by name, in bit order ("R", "G",
// "B", "A", "Z", then named ones).
struct OutputLayout {
    UTIL::Rect rect;
    UTIL::Rect format;
    std::vector<std::string> channelNames;
    int64_t tileWidth = 0;  // the render's tiles, which file tiles and bands follow
    int64_t tileHeight = 0;
};

class OutputFile {
public:
    // A file not finished is removed.
    virtual ~OutputFile() = default;
    // Takes a piece of the output (pieces do not overlap); safe from any
    // number of threads at once. Throws UTIL::ErrorException "cannot write
    // 'PATH': REASON" when the file cannot take it.
    virtual void write(const PixelPiece& piece) = 0;
    // Completes the file and gives it its final name; throws like write.
    virtual void finish() = 0;
    // Removes the unfinished file.
    virtual void abandon() = 0;
};

// Opens a file for the layout; the format follows the extension. Throws
// UTIL::ErrorException naming the file when it cannot be created.
std::unique_ptr<OutputFile> openOutputFile(const FileOutParams& params, const OutputLayout& layout);

// The kinds of file behind openOutputFile.
// EXR written tile by tile, compressed on the threads that deliver the
// tiles; null when the compression needs the scanline writer.
std::unique_ptr<OutputFile> openExrTiledFile(const FileOutParams& params,
                                             const OutputLayout& layout);
// Any format OpenImageIO writes, in bands of rows from the top.
std::unique_ptr<OutputFile> openScanlineFile(const FileOutParams& params,
                                             const OutputLayout& layout);

// A file is written under a hidden name in its own folder (so the rename
// cannot cross file systems) and renamed when complete: an interrupted
// render never leaves a truncated image under the final name.
class FileCommit {
public:
    explicit FileCommit(std::string path);
    const std::string& path() const { return m_path; }
    const std::string& temporary() const { return m_temporary; }
    // Records the first failure, "cannot write 'PATH': REASON"; false.
    bool fail(const std::string& reason);
    const std::string& error() const { return m_error; }
    // Gives the temporary file its name, or removes it after a failure;
    // whether the file is in place.
    bool commit();

private:
    std::string m_path;
    std::string m_temporary;
    std::string m_error;
};

// Removes the temporary files of `path` that a process died writing (every
// process's: only for a caller that owns the path).
void removeAbandonedTemporaries(const std::string& path);

}  // namespace Private
}  // namespace TESSERA
