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

    const std::string& getName() const;
    const std::string& getNameAtTime() const;
    float getTime() const;

    /// Whether finished tiles of this task are kept for re-use (default true).
    void setCaching(bool caching);
    bool getCaching();
    /// Whether cached tiles of this task may go to the swap file.
    void setDiskCacheEnabled(bool enabled);
    /// Set once: the first setting to reach a task wins, and it is passed on
    /// to every input.
    void setSampleRate(float x, float y);
    void setProbabilityBeingEdited(float probability);
    float getProbabilityIsNeeded() const;

    /// The defined output channels and data region, computing the output
    /// description first if needed. Either pointer may be null.
    void getOutputDescription(uint64_t* channels, UTIL::Region* region);
    /// The compressed cache ID ("$" and 32 characters).
    const std::string& getCacheID();
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
    size_t convertToTileIDs(const UTIL::Rect& rect, std::vector<TileID>& out) const;
    size_t convertToTileIDs(const UTIL::Region& region, std::vector<TileID>& out) const;

    /// Full frame: the task renders its whole required output in one piece,
    /// and every tile asked of it is copied from that. With
    /// wrapInputImagesIfBackground, missing inputs are then replaced by
    /// images of the input's background colour.
    void setRenderFullFrame(bool fullFrame, bool wrapInputImagesIfBackground);
    bool isRenderTiled();
    void setWrapInputImagesIfBackground(bool wrap);
    int64_t getFinalRenderTaskID();

    /// Renders one output image from the inputs' buffers (null for a missing
    /// input). Reentrant for different tiles.
    void render(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs);
    /// The input rectangles needed for an output rectangle, one per input.
    void computeRequiredInputRects(const UTIL::Rect& outputRect,
                                   std::vector<UTIL::Rect>& inputRects);

    Imp& imp() const;

    /// Live task objects: constructors count up, destructors down.
    static std::atomic<uint64_t> s_count;

protected:
    RenderTask(const std::string& name, float time);

    size_t registerInputTask(TaskPtr input);
    size_t getInputTaskCount() const;
    void addInputRequest(size_t input, uint64_t channels);
    void addInputRequest(size_t input, uint64_t channels, IMGLIB::ExtendMethod method,
                         bool extendWithOverscan, const UTIL::Rect& displayRect);
    uint64_t getDefinedInputChannels(size_t input);
    const UTIL::Region& getDefinedInputDataRegion(size_t input);
    const Imath::Color4<float>& getInputBackgroundColor(size_t input);
    const UTIL::Rect& getInputFormat(size_t input);
    const std::string& getInputCacheID(size_t input);
    void ignoreInputCacheID(size_t input);
    uint64_t getRequiredOutputChannels() const;
    uint64_t getRequiredInputChannels(int64_t input) const;
    const UTIL::Region& getDefinedOutputDataRegion() const;
    int getTileWidth() const;
    int getTileHeight() const;
    void setRenderLocalLocking(bool localLocking);
    /// An image of input i's background colour over rect with the given
    /// channels (unlocked): what a missing input stands for.
    ImageBuffer makeBackgroundInputImage(size_t input, uint64_t channels, const UTIL::Rect& rect,
                                         const std::string& comment);

    /// ---- Hooks ----
    virtual std::string getTypeString() = 0;
    virtual void computeCacheID(CacheIDStream& stream) = 0;
    virtual uint64_t computeOutputChannels() = 0;
    virtual UTIL::Region computeOutputDataRegion() = 0;
    /// Default: input 0's background colour, or transparent black without inputs.
    virtual Imath::Color4<float> computeBackgroundColor();
    virtual void makeInputFormatRequests() = 0;
    virtual void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                                std::vector<UTIL::Rect>& inputRects) = 0;
    virtual void preRender() {}
    /// Delayed locking: the task locks the input buffers it needs itself.
    virtual void renderRect(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs);
    /// Immediate locking: the base has locked every input (null when missing).
    virtual void renderRect(const IMGLIB::Image* output,
                            const std::vector<const IMGLIB::Image*>& inputs);
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
