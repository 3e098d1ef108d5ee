/// @file
/// Frame sequences: frame lists as artists type them, numbered file paths,
/// and a graph file rendered frame by frame.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "exceptions.h"
#include "graphfile.h"
#include "renderimage.h"
#include "tessera_export.h"

namespace TESSERA {

/// "1-100", "1-100x2" (every second frame), "5", "1,4,9" and lists of these
/// ("1-10,20,30-40x5"), in the order given, each frame once. Throws
/// std::invalid_argument naming the part that is not a frame list.
TESSERA_API std::vector<int> parseFrames(const std::string& text);

/// The path of one frame: each run of '#' becomes the frame number padded
/// with zeros to the run's length ("a.####.exr" -> "a.0012.exr"), and
/// "%d" or "%0Nd" is replaced as printf would. Other text is kept.
TESSERA_API std::string framePath(const std::string& path, int frame);
/// Whether a path carries a frame number in one of those forms.
TESSERA_API bool hasFrameNumber(const std::string& path);

/// A frame that was not written, and why.
struct FrameFailure {
    int frame;            ///< the frame
    std::string message;  ///< the reason, naming the frame
};

/// Where a sequence is: the frame being rendered (index of count) and its tiles.
struct SequenceProgress {
    int frame = 0;         ///< the frame rendering
    size_t index = 0;      ///< its place in the sequence, from 0
    size_t count = 0;      ///< the frames of the sequence
    RenderProgress tiles;  ///< the frame's tiles
};

/// How a sequence reports, and is stopped.
struct SequenceOptions {
    /// Called on the calling thread while a frame renders; throwing from it
    /// cancels the sequence, and the exception leaves the call.
    std::function<void(const SequenceProgress&)> progress;
    /// Called on the calling thread after each frame: an empty message is
    /// a frame written, any other the reason it failed.
    std::function<void(int frame, const std::string& error)> frameDone;
    /// Set from any thread to cancel the sequence.
    ///@{
    const std::atomic<bool>* cancel = nullptr;
    RenderType type = RENDERTYPE_BATCH;
    ///@}
    /// Before a frame is written, remove the temporary files that a process
    /// writing the same outputs left when it died (on a farm, a killed
    /// worker's). Only for renders that own their outputs.
    bool removeAbandonedFiles = false;
};

/// Why a sequence of a graph cannot be written: an output file whose path
/// has no frame number ("'o.exr' has no frame number ...").
TESSERA_API std::string unnumberedFileMessage(const Graph& graph);

/// Loads the graph file at each frame and writes its outputs. A frame that
/// fails (a missing input frame, a failed write) is reported and the next
/// one rendered; the failures are returned, by frame, each message naming
/// the frame. Several frames of a graph with an output file without a frame
/// number throw GraphFileError (unnumberedFileMessage) before any is written. A file that cannot be
/// read or is not JSON throws GraphFileError first; cancellation throws RenderCancelledException.
/// Parts of the graph that do not change from frame to frame keep their tiles in the tile cache, so
/// later frames re-use them.
TESSERA_API std::vector<FrameFailure> writeGraphFrames(
    const std::string& graphPath, const std::vector<int>& frames,
    const std::vector<ParameterOverride>& overrides = {}, const SequenceOptions& options = {});
/// The same for a graph already read (standard input, a graph built in memory).
TESSERA_API std::vector<FrameFailure> writeGraphFrames(
    const GraphSource& source, const std::vector<int>& frames,
    const std::vector<ParameterOverride>& overrides = {}, const SequenceOptions& options = {});

}  // namespace TESSERA
