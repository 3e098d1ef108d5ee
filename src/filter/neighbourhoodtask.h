// The task shape every neighbourhood filter shares: the image is input 0,
// read over the output grown by the filter's reach and extended past its
// data as the caller asked; further inputs (control images, kernels,
// vectors) are read over their own rectangles. Members supply the operator
// call and the parameters that make up their cache identity.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "colortasks.h"
#include "imagebuffer.h"
#include "rendertask.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

class NeighbourhoodTask : public RenderTask {
public:
    static constexpr uint64_t kAllDefinedChannels = ~uint64_t(0);

    NeighbourhoodTask(const std::string& name, float time, const std::string& type, TaskPtr image);

protected:
    // The reach of the operator on the image, and so the growth of the
    // defined region. A reach beyond kMaxReach (a size of a billion, or
    // infinity) throws RenderTaskRenderingException naming the task.
    static constexpr int64_t kMaxReach = int64_t(1) << 16;
    void setPadding(int64_t padX, int64_t padY);
    // How the image is extended past its data (default: its background).
    void setExtension(IMGLIB::ExtendMethod method, bool extendFlag, const UTIL::Rect& extendRect);
    // The channels asked of the image (default 0: those asked of this task).
    void setImageChannels(uint64_t channels) { m_imageChannels = channels; }
    // Channels the operator reads whatever is asked of it (a colour distance
    // reads R, G and B, a matte's edge A): asked of the image too, where it
    // defines them, so that no channel's value depends on which others were
    // asked. The operator then gets them all; the channels asked are copied
    // out of its result.
    void setChannelsAlwaysRead(uint64_t channels) { m_alwaysRead = channels; }
    // A further input: `channels` of it (0: the channels asked of this task;
    // kAllDefinedChannels: every channel it defines)
    // over the output grown by (padX, padY), or over `fixedRect` whatever
    // the output when one is given.
    size_t addAuxiliaryInput(TaskPtr input, uint64_t channels, int64_t padX, int64_t padY,
                             std::optional<UTIL::Rect> fixedRect = std::nullopt);
    // Without the image's data (input 0 missing) a tile is filled with the
    // task's background colour (by default the image's) unless this is switched off; then the
    // operator gets a background image instead, like any missing input.
    void setFillWithoutImage(bool fill) { m_fillWithoutImage = fill; }

    int64_t padX() const { return m_padX; }
    int64_t padY() const { return m_padY; }

    // The operator on one tile: every input present, covering its rectangle.
    virtual void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) = 0;
    // The parameters, as text for the cache identity.
    virtual void describe(CacheIDStream& stream) = 0;

    std::string getTypeString() override { return m_type; }
    void computeCacheID(CacheIDStream& stream) override;
    uint64_t computeOutputChannels() override;
    UTIL::Region computeOutputDataRegion() override;
    void makeInputFormatRequests() override;
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override;
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    // Throws the render exception for an IMGLIB status.
    void check(int status);

private:
    void checkReach(int64_t padX, int64_t padY) const;
    uint64_t auxiliaryChannels(size_t input);
    // filter(), through an image of the image's channels when the operator
    // reads more channels than were asked of it.
    void filterAsked(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in);
    struct Auxiliary {
        uint64_t channels;
        int64_t padX, padY;
        std::optional<UTIL::Rect> fixedRect;
    };
    std::string m_type;
    int64_t m_padX = 0, m_padY = 0;
    IMGLIB::ExtendMethod m_extendMethod = IMGLIB::EXTEND_BACKGROUND;
    bool m_extendFlag = false;
    UTIL::Rect m_extendRect;
    std::vector<Auxiliary> m_auxiliary;  // inputs 1, 2, ...
    bool m_fillWithoutImage = true;
    uint64_t m_imageChannels = 0;
    uint64_t m_alwaysRead = 0;
};

// The bloom applied before a filter: none when the settings leave every
// value as it is.
TaskPtr withBloom(const std::string& name, float time, const BloomControlSettings& bloom,
                  TaskPtr input);

}  // namespace Private
}  // namespace TESSERA
