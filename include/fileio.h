// File input and output through OpenImageIO: every format it reads (EXR
// scanline and tiled, TIFF, PNG, JPEG, DPX, ...) and writes.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "renderdescription.h"
#include "renderobserver.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

struct TESSERA_API FileInParams {
    std::string path;
    int subimage = 0;
};

// The file's pixels in the file's own coordinates: the defined region is its
// data window, the channels its R, G, B, A (and Z when present). Only the
// part a render needs is read (scanlines or tiles of that region). A file
// that cannot be opened throws RenderTaskRenderingException naming it.
TESSERA_API TaskPtr createFileInTask(const std::string& name, float time,
                                     const FileInParams& params);

// The data and display windows of a file (throws like createFileInTask).
struct TESSERA_API FileWindows {
    UTIL::Rect dataWindow;
    UTIL::Rect displayWindow;
};
TESSERA_API FileWindows readFileWindows(const std::string& path);

struct TESSERA_API FileOutParams {
    std::string path;                 // the format follows the extension
    std::string dataType;             // "half", "float", "uint8" or "uint16"; empty: the
                                      // format's usual (EXR half, TIFF uint16, else uint8)
    std::string compression = "zip";  // EXR and TIFF compression
};

// An observer that writes outputs to files: each output's tiles are gathered
// as they arrive and the file is written when the output is finished.
// Errors are kept for the caller (getErrors) and reported on standard error.
class TESSERA_API FileWriter : public RenderObserver {
public:
    // Output `index` of the render goes to each file of `files`.
    void addOutput(size_t index, const RenderDescription& output,
                   const std::vector<FileOutParams>& files);

    void tileDone(const ImageBuffer& image, const OutputTileID& id) override;
    void outputFinished(size_t outputIndex) override;
    std::string getErrors() const;

private:
    struct Target;
    mutable std::mutex m_mutex;  // guards m_targets and m_errors
    std::map<size_t, std::shared_ptr<Target>> m_targets;
    std::string m_errors;
};

}  // namespace TESSERA
