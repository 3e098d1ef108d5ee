/// @file
/// RenderTask: the base class of every node of the render graph.
#pragma once

#include <Imath/ImathColor.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "cacheidstream.h"
#include "imagebuffer.h"
#include "imglib/image.h"
#include "tessera_export.h"
#include "tileid.h"
#include "util/rect.h"
#include "util/ref_ptr.h"
#include "util/region.h"

namespace TESSERA {

class RenderTask;
namespace Private {
class RenderNode;
}
/// How tasks are held: by an intrusive, thread-safe reference count.
using TaskPtr = RCX_ptr_v4::ref_ptr<RenderTask>;

/// A task registers its inputs in its constructor and fills in the hooks;
/// the base class and its implementation object work out regions, channels,
/// background colours and cache identity through the graph, turn requests
/// into tiles and call the hooks in this order for one render:
/// computeOutputChannels, computeBackgroundColor, computeOutputDataRegion
/// (after every input has computed its own), computeCacheID,
/// makeInputFormatRequests, computeRequiredInputRectangles per tile,
/// preRender, renderRect per tile, postRender.
class TESSERA_API RenderTask : public ThreadSafeRefBase {
public:
    class Imp;

    ~RenderTask() override;

    /// The name the task was made with (a graph file's node id, say).
    const std::string& getName() const;
    /// "NAME@TIME": how reports, errors and the debug log name the task.
    const std::string& getNameAtTime() const;
    /// The time (frame) the task renders.
    float getTime() const;

    /// Whether finished tiles of this task are kept for re-use (default true).
    void setCaching(bool caching);
    /// Whether finished tiles of this task are kept (setCaching).
    bool getCaching();
    /// Whether cached tiles of this task may go to the swap file.
    void setDiskCacheEnabled(bool enabled);
    /// Set once: the first setting to reach a task wins, and it is passed on
    /// to every input.
    void setSampleRate(float x, float y);
    /// A host's estimate (0 to 1) that the artist is about to change this
    /// task: its tiles are then worth less to the tile cache.
    void setProbabilityBeingEdited(float probability);
    /// The chance that an output of the latest render needs this task: one
    /// minus the product of (1 - priority) over the outputs that read it.
    float getProbabilityIsNeeded() const;

    /// The defined output channels and data region, computing the output
    /// description first if needed. Either pointer may be null.
    void getOutputDescription(uint64_t* channels, UTIL::Region* region);
    /// The compressed cache ID ("$" and 32 characters).
    const std::string& getCacheID();
    /// The colour of every pixel outside the defined region, computing the
    /// output description first if needed.
    const Imath::Color4<float>& getBackgroundColor();
    /// The format (display window): the frame the image is meant to fill,
    /// which its data (the defined region) may overrun or fall short of.
    /// Outputs write it as the display window.
    const UTIL::Rect& getFormat();
    /// Leaves the vector as it was passed: the graph is walked through the
    /// implementation object.
    void getAllInputRenderTasks(std::vector<TaskPtr>& tasks);
    /// Writes "Not Implemented Yet " and an end of line.
    void outputCachingInfo(std::ostream& os) const;

    /// The tiles of the task's grid that cover an area (the grid of the
    /// render being set up on this thread, else the global tile size).
    /// @return the count of tiles appended to out.
    size_t convertToTileIDs(const UTIL::Rect& rect, std::vector<TileID>& out) const;
    /// The tiles that cover any rectangle of a region, each once.
    size_t convertToTileIDs(const UTIL::Region& region, std::vector<TileID>& out) const;

    /// Full frame: the task renders its whole required output in one piece,
    /// and every tile asked of it is copied from that. With
    /// wrapInputImagesIfBackground, missing inputs are then replaced by
    /// images of the input's background colour.
    void setRenderFullFrame(bool fullFrame, bool wrapInputImagesIfBackground);
    /// False when the task renders full frame (setRenderFullFrame).
    bool isRenderTiled();
    /// Whether missing inputs of a full-frame task become images of the
    /// input's background colour.
    void setWrapInputImagesIfBackground(bool wrap);
    /// The ID of the latest render that used the task (0 before any).
    int64_t getFinalRenderTaskID();

    /// Renders one output image from the inputs' buffers (null for a missing
    /// input). Reentrant for different tiles.
    void render(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs);
    /// The input rectangles needed for an output rectangle, one per input.
    void computeRequiredInputRects(const UTIL::Rect& outputRect,
                                   std::vector<UTIL::Rect>& inputRects);

    /// The implementation object the render system works through.
    Imp& imp() const;

    /// Live task objects: constructors count up, destructors down.
    static std::atomic<uint64_t> s_count;

protected:
    /// A task named `name` at `time`; a derived constructor registers its
    /// inputs next.
    RenderTask(const std::string& name, float time);

    /// Adds an input (null for a missing one) and returns its index.
    size_t registerInputTask(TaskPtr input);
    /// The count of registered inputs, missing ones included.
    size_t getInputTaskCount() const;
    /// From makeInputFormatRequests: the channels needed of an input.
    void addInputRequest(size_t input, uint64_t channels);
    /// The same, with the input extended beyond its data by `method`
    /// (clamped or mirrored at the edge of its data; without
    /// extendWithOverscan, of its data inside displayRect).
    void addInputRequest(size_t input, uint64_t channels, IMGLIB::ExtendMethod method,
                         bool extendWithOverscan, const UTIL::Rect& displayRect);
    /// An input's defined channels (0 for a missing input).
    uint64_t getDefinedInputChannels(size_t input);
    /// An input's defined region (empty for a missing input).
    const UTIL::Region& getDefinedInputDataRegion(size_t input);
    /// An input's background colour (transparent black for a missing one).
    const Imath::Color4<float>& getInputBackgroundColor(size_t input);
    /// An input's format (its display window).
    const UTIL::Rect& getInputFormat(size_t input);
    /// An input's cache ID, as computeCacheID may write it.
    const std::string& getInputCacheID(size_t input);
    /// Leaves an input out of this task's cache ID: for an input whose
    /// pixels cannot change the output (only its shape is read, say).
    void ignoreInputCacheID(size_t input);
    /// The channels asked of this task in the render being set up.
    uint64_t getRequiredOutputChannels() const;
    /// The channels this task asks of an input in the render being set up.
    uint64_t getRequiredInputChannels(int64_t input) const;
    /// This task's own defined region (after computeOutputDataRegion).
    const UTIL::Region& getDefinedOutputDataRegion() const;
    /// The tile width of the render being set up on this thread, else the
    /// global one.
    int getTileWidth() const;
    /// The tile height, likewise.
    int getTileHeight() const;
    /// Delayed locking: renderRect receives the input buffers unlocked and
    /// locks what it reads (the ImageBuffer overload is called).
    void setRenderLocalLocking(bool localLocking);
    /// renderRect takes an input image that covers only the input's data
    /// within the asked rectangle (or none), the input's background colour
    /// standing for it elsewhere: a tile of the input is then handed over as
    /// it is instead of being copied into an image of the whole rectangle.
    void setReadsInputDataOnly(bool dataOnly);
    /// An image of input i's background colour over rect with the given
    /// channels (unlocked): what a missing input stands for.
    ImageBuffer makeBackgroundInputImage(size_t input, uint64_t channels, const UTIL::Rect& rect,
                                         const std::string& comment);

    // ---- Hooks ----
    /// The task's type, which begins its cache ID ("Blur", "Over").
    virtual std::string getTypeString() = 0;
    /// Writes every parameter that changes the pixels; the inputs' cache IDs
    /// are added by the base.
    virtual void computeCacheID(CacheIDStream& stream) = 0;
    /// The channels the task defines, from its inputs'.
    virtual uint64_t computeOutputChannels() = 0;
    /// The region where the task's pixels may differ from its background.
    virtual UTIL::Region computeOutputDataRegion() = 0;
    /// Default: input 0's background colour, or transparent black without inputs.
    virtual Imath::Color4<float> computeBackgroundColor();
    /// Asks each input for the channels it needs (addInputRequest), given
    /// getRequiredOutputChannels.
    virtual void makeInputFormatRequests() = 0;
    /// The rectangle of each input one output rectangle reads, one per
    /// input (a null rectangle: none).
    virtual void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                                std::vector<UTIL::Rect>& inputRects) = 0;
    /// Called once before the render's first tile of this task.
    virtual void preRender() {}
    /// Delayed locking: the task locks the input buffers it needs itself.
    virtual void renderRect(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs);
    /// Immediate locking: the base has locked every input (null when missing).
    virtual void renderRect(const IMGLIB::Image* output,
                            const std::vector<const IMGLIB::Image*>& inputs);
    /// Called once after the render's last tile of this task.
    virtual void postRender() {}
    /// The format, computed after the defined region. Default: the first
    /// input's, or the bounding box of the defined region for a task
    /// without inputs. (Last, so that the slots above keep their order.)
    virtual UTIL::Rect computeFormat();

private:
    friend class Imp;
    friend class Private::RenderNode;
    void callRenderRect(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs);

    std::unique_ptr<Imp> m_imp;
    bool m_renderFullFrame = false;
    bool m_renderLocalLocking = false;
    bool m_wrapInputImagesIfBackground = false;
};

}  // namespace TESSERA
