/// @file
/// File input and output: EXR (scanline and tiled, read and written on the
/// render's threads with OpenEXR), and every other format OpenImageIO reads
/// and writes (TIFF, PNG, JPEG, DPX, ...), through a module loaded when such
/// a file is first opened.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "renderdescription.h"
#include "renderobserver.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

/// What a file input reads: which file, part, layer, view and mip level.
struct TESSERA_API FileInParams {
    FileInParams() = default;
    /// Part `subimage` of the file at `path`, its own R, G, B, A.
    explicit FileInParams(std::string path, int subimage = 0)
        : path(std::move(path)), subimage(subimage) {}

    std::string path;  ///< the file (any format OpenImageIO reads; EXR read directly)
    /// Which part of a multi-part file (counted among the parts of `view`
    /// when one is chosen and the views are in parts of their own).
    int subimage = 0;
    /// The layer whose channels fill R, G, B and A ("diffuse": diffuse.R or
    /// diffuse.red, any case); empty: the file's own R, G, B, A.
    std::string layer;
    /// A layer without such channels ("forward.u", "forward.v") fills R, G,
    /// B, A in the file's order, only when this is set.
    bool layerInOrder = false;
    /// A view of a multi-view file; empty: the file's default view.
    std::string view;
    /// The mip level of a mip-mapped (or rip-mapped) tiled file: 0 is full
    /// size, each level halves it; a file without the level is an error.
    int level = 0;
};

/// The file's pixels in the file's own coordinates: the defined region is its
/// data window. Every channel of the part and view is read under its name:
/// R, G, B, A and Z (a grey file's Y as R, G and B) keep their bits, any
/// other ("diffuse.R", "mask") takes the bit of its name (IMGLIB's registry
/// of channel names). Nothing is matched by position. Only the part a render
/// needs is read (scanlines or tiles of that region). A file that cannot be
/// opened, or lacks the layer or view asked for, throws
/// RenderTaskRenderingException naming the file and what it lacks.
TESSERA_API TaskPtr createFileInTask(const std::string& name, float time,
                                     const FileInParams& params);

/// Drops what the engine keeps of a file: the tiles read from it are thrown
/// out of the tile cache, and file inputs made for the path from now on have
/// a new identity. A host calls it when a file changed in a way the file
/// system may not show (the same size and time to the nanosecond); a file
/// input's identity already includes its size, time and inode.
TESSERA_API void forgetFile(const std::string& path);

/// For programs whose files are all read and written through renders (the
/// tessera command, the Python module): OpenImageIO and OpenEXR start no
/// worker threads of their own (OpenImageIO's "threads" 1 and "exr_threads"
/// -1, for the whole process, applied when OpenImageIO is first needed), so
/// decoding and encoding share the render's workers instead of
/// oversubscribing the cores. A host that uses OpenImageIO for its own work
/// keeps its settings by not calling this. (EXR files, and every file the
/// library opens itself, use the render's threads either way.)
TESSERA_API void useRenderThreadsForFiles();

/// The data and display windows of a file (throws like createFileInTask).
struct TESSERA_API FileWindows {
    UTIL::Rect dataWindow;     ///< where the file has pixels
    UTIL::Rect displayWindow;  ///< the picture's frame (its format)
};
/// Reads them from part 0 of the file at `path`.
TESSERA_API FileWindows readFileWindows(const std::string& path);

/// What a file's header says, as `tessera info` shows it.
struct TESSERA_API FileChannelDescription {
    std::string name;  ///< as the file names it ("diffuse.R", "right.G")
    std::string type;  ///< "half", "float", "uint8", "uint16", "uint32", ...
};
/// One part of a file (one subimage of formats without parts).
struct TESSERA_API FilePartDescription {
    std::string name;          ///< the part's name; empty when it has none
    std::string view;          ///< the part's view; empty when it has none
    std::string storage;       ///< "scanline", "tiled", "deep scanline" or "deep tiled"
    int tileWidth = 0;         ///< tiled files: a tile's width
    int tileHeight = 0;        ///< and its height
    int levels = 1;            ///< mip levels
    std::string compression;   ///< "zip", "piz", "dwaa:45", ...; empty: none said
    UTIL::Rect dataWindow;     ///< where the part has pixels
    UTIL::Rect displayWindow;  ///< the picture's frame
    std::vector<FileChannelDescription> channels;  ///< in the order the reader gives them
    /// The other header attributes, each name with its value as text.
    std::vector<std::pair<std::string, std::string>> attributes;
};
/// A whole file, as describeFile reads it.
struct TESSERA_API FileDescription {
    std::string format;                      ///< "openexr", "tiff", "png", ...
    std::vector<std::string> views;          ///< a multi-view file's views, the default first
    std::vector<FilePartDescription> parts;  ///< every part, in the file's order
};
/// Reads the header of every part of a file (OpenImageIO's reading, with
/// the views OpenEXR's header gives). Throws RenderTaskRenderingException
/// naming the file when it cannot be read.
TESSERA_API FileDescription describeFile(const std::string& path);

/// A header attribute an output writes: a string, or a number (an integer
/// when it is whole, else a float).
struct TESSERA_API FileAttribute {
    std::string name;       ///< the attribute's name in the header
    std::string text;       ///< its value, when a string
    double number = 0;      ///< its value, when a number
    bool isNumber = false;  ///< which of the two it is
};

/// A file an output is written to, and how.
struct TESSERA_API FileOutParams {
    FileOutParams() = default;
    /// A file at `path`, of `dataType` (empty: the format's usual), compressed so.
    FileOutParams(std::string path, std::string dataType = std::string(),
                  std::string compression = "zip")
        : path(std::move(path)),
          dataType(std::move(dataType)),
          compression(std::move(compression)) {}

    std::string path;                 ///< the format follows the extension
    std::string dataType;             ///< "half", "float", "uint8" or "uint16"; empty: the
                                      /// format's usual (EXR half, TIFF uint16, else uint8)
    std::string compression = "zip";  ///< EXR and TIFF compression ("zip", "piz", "zip:4", ...)
    std::string layout = "tiled";     ///< EXR: "tiled" or "scanline"
    int tileSize = 0;                 ///< EXR tiles: 0 for the render's; never above the image
    /// EXR: a file whose header attributes (chromaticities, frame rate,
    /// owner, custom ones; not its layout) the output carries over; then
    /// `attributes`, which win.
    ///@{
    std::string attributesFrom;
    std::vector<FileAttribute> attributes;
    ///@}
    /// EXR: the views the file holds, the default first (its "multiView"
    /// attribute); the channels name them ("R", "right.R").
    std::vector<std::string> views;
    /// EXR: one part per layer ("rgba" for R, G, B, A, Z and other names
    /// without a layer; "diffuse" for diffuse.*), with views one per view and
    /// layer, instead of every channel in one part. Tiled layouts only.
    bool parts = false;
};

/// An observer that writes outputs to files while the render runs: each tile
/// goes to the files as it arrives, and a file writes each of its tiles (EXR,
/// compressed on the thread that delivered the tile) or bands of rows (other
/// formats, from the top) as soon as it is whole, so a file costs memory for
/// a few rows of tiles, not for the image. A file is written under a hidden
/// temporary name and renamed when complete. A file that cannot be written (a
/// missing folder, a full disk) fails the render with "cannot write 'PATH':
/// REASON"; a render that does not succeed leaves no partial file behind.
/// Errors are also kept for the caller (getErrors).
class TESSERA_API FileWriter : public RenderObserver {
public:
    FileWriter();
    ~FileWriter() override;

    /// Output `index` of the render goes to each file of `files`.
    void addOutput(size_t index, const RenderDescription& output,
                   const std::vector<FileOutParams>& files);

    void tileDone(const ImageBuffer& image, const OutputTileID& id) override;
    void outputFinished(size_t outputIndex) override;
    void renderFinished(RenderStatus status, const std::string& message) override;
    /// Every file's failure so far, one per line; empty when none failed.
    std::string getErrors() const;

private:
    struct Target;
    std::shared_ptr<Target> target(size_t outputIndex) const;
    void remember(const std::string& error);
    mutable std::mutex m_mutex;  ///< guards m_targets and m_errors
    std::map<size_t, std::shared_ptr<Target>> m_targets;
    std::string m_errors;
};

}  // namespace TESSERA
