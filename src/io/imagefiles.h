// Reading and writing image files below the tasks: EXR through OpenEXR's
// core library in this library (scanline EXRs are written with its C++
// library, which compresses DWA); every other format (and deep EXR) through
// OpenImageIO in a module loaded the first time such a file is opened, so
// that programs working in EXR never load OpenImageIO and the hundreds of
// libraries it brings (a fifth of a second and over 100 MB at start-up).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fileio.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

struct ImageFileInfo {
    UTIL::Rect dataWindow;
    UTIL::Rect displayWindow;
    std::vector<std::string> channelNames;
    int64_t tileWidth = 0;  // 0: the file is in scanlines
    int64_t tileHeight = 0;
    int64_t rowsPerChunk = 1;  // scanline files: rows stored together
    bool deep = false;
    bool halfChannels = false;  // every channel is stored as half
    std::string description;    // what tells versions apart beyond the header (a date)
    // Views of a multi-view file, the default first; empty when it has none.
    std::vector<std::string> views;
    // The view of each part of a multi-part file ("" for a part with none).
    std::vector<std::string> partViews;
};

// Where a read puts the file's channels: in pixels of `pixelBytes`, the
// file's channel c at byte offset[c] of each, or nowhere when that is -1.
// Elements are floats, or halves (only for files of half channels alone).
struct PixelLayout {
    std::vector<int> offset;
    int64_t pixelBytes = 0;
    bool halves = false;
    int64_t elementBytes() const { return halves ? 2 : 4; }
};

// One open file. A reader serves one thread at a time.
class ImageReader {
public:
    virtual ~ImageReader() = default;
    virtual const ImageFileInfo& info() const = 0;
    // Decodes `area` (inside the data window; whole tiles of a tiled file)
    // into rows `lineBytes` apart from `first`, laid out as `layout` says.
    // Deep files are flattened front to back. Empty on success, else the
    // reason.
    virtual std::string read(const UTIL::Rect& area, const PixelLayout& layout, uint8_t* first,
                             int64_t lineBytes) = 0;
};

// Opens `path` (part `subimage`, mip level `level`); null and `error` set
// when it cannot.
std::unique_ptr<ImageReader> openImageReader(const std::string& path, int subimage, int level,
                                             std::string& error);

// A file written in bands of rows from the top.
struct ImageWriterSpec {
    std::string path;      // where the bytes go
    std::string formatOf;  // the name whose extension gives the format
    UTIL::Rect rect;
    UTIL::Rect displayWindow;
    std::vector<std::string> channelNames;
    std::string dataType;  // "half", "float", "uint8", "uint16"; empty: the format's usual
    std::string compression;
    std::string attributesFrom;  // a file whose header attributes are carried over
    std::vector<std::pair<std::string, std::string>> textAttributes;
    std::vector<std::pair<std::string, double>> numberAttributes;
    std::vector<std::string> views;  // EXR: the multiView attribute
};
class ImageWriter {
public:
    virtual ~ImageWriter() = default;
    // Rows [ymin, ymax), every channel as floats; empty on success, else
    // the reason (in the system's words for a failed write).
    virtual std::string writeRows(int64_t ymin, int64_t ymax, const float* pixels,
                                  int64_t pixelBytes, int64_t lineBytes) = 0;
    virtual std::string close() = 0;
};

// EXR in scanlines (any compression, DWA and B44 of floats included)
// through OpenEXR's C++ library; null and `error` set when it cannot.
std::unique_ptr<ImageWriter> openExrScanlineWriter(const ImageWriterSpec& spec, std::string& error);

// The OpenImageIO module's entry points.
struct ImageFormatModule {
    std::unique_ptr<ImageReader> (*openReader)(const std::string& path, int subimage, int level,
                                               std::string& error);
    std::unique_ptr<ImageWriter> (*openWriter)(const ImageWriterSpec& spec, std::string& error);
    // OpenImageIO and OpenEXR start no threads of their own, process-wide.
    void (*useRenderThreads)();
    // Every part's header; empty `error` on success.
    FileDescription (*describe)(const std::string& path, std::string& error);
};
// Loads the module on first use; null and `error` set when it cannot be.
const ImageFormatModule* imageFormatModule(std::string& error);
// The build folder holding the module, for the static library the tests
// link; null in the shared library, which finds it beside itself.
const char* formatModuleBuildDirectory();
// useRenderThreads, now if the module is loaded, else when it is.
void useRenderThreadsInModule();

// EXR through the core library; null when the file needs the module (deep,
// subsampled channels, DWA, B44 with channels other than half) or is not
// EXR (`error` then stays empty). When the module is needed, `header` (if
// given) receives what the core library read of the header: its views.
std::unique_ptr<ImageReader> openExrReader(const std::string& path, int subimage, int level,
                                           std::string& error, ImageFileInfo* header = nullptr);

}  // namespace Private
}  // namespace TESSERA

// The module's one symbol.
extern "C" const TESSERA::Private::ImageFormatModule* tessera_image_format_module();
