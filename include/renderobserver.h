/// @file
/// RenderObserver: how a host hears about a render's progress.
#pragma once

#include <cstddef>
#include <string>

#include "imagebuffer.h"
#include "tessera_export.h"
#include "tileid.h"
#include "util/ref_ptr.h"

namespace TESSERA {

/// Which tile of which output a finished tile is.
struct TESSERA_API OutputTileID {
    size_t outputIndex = 0;  ///< index of the RenderDescription in the render
    TileID tileID;           ///< the tile, in the output's task's grid
};

/// How a render ended: every output tile delivered, a failure, or cancelled.
enum class RenderStatus { Success, Error, Cancelled };

/// Called from the render threads: implementations must be thread-safe and
/// should return quickly (copy or queue the pixels, do not process them).
class TESSERA_API RenderObserver : public ThreadSafeRefBase {
public:
    ~RenderObserver() override;
    /// A tile of an output is finished. The image is unlocked; lock it to read.
    virtual void tileDone(const ImageBuffer& image, const OutputTileID& id) = 0;
    /// Any tile, output or internal, is finished (0 seconds when it came from
    /// the tile cache).
    virtual void internalTileDone(const std::string& taskName, const std::string& taskDescription,
                                  double seconds);
    /// The last tile of an output was delivered.
    virtual void outputFinished(size_t outputIndex);
    /// The render ended; message says why when it did not succeed.
    virtual void renderFinished(RenderStatus status, const std::string& message);
};

/// Observers are shared by reference count.
using RenderObserverPtr = RCX_ptr_v4::ref_ptr<RenderObserver>;

}  // namespace TESSERA
