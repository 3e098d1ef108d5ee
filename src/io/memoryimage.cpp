// The host's pixels in memory as a source: tiles they cover are views.
#include "memoryimage.h"

#include <atomic>
#include <stdexcept>

#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "private/pixelview.h"
#include "rendersystem/images/imagebuffer_imp.h"

namespace TESSERA {
namespace {

std::atomic<uint64_t> s_memoryImages{0};

class MemoryImageTask : public RenderTask, public Private::PixelView {
public:
    MemoryImageTask(const std::string& name, float time, const IMGLIB::Image& pixels,
                    std::shared_ptr<const void> owner)
        : RenderTask(name, time),
          m_pixels(pixels),
          m_bounds(pixels.x1, pixels.y1, pixels.x2, pixels.y2),
          m_owner(std::move(owner)),
          m_serial(++s_memoryImages) {}

    ImageBuffer viewRect(const UTIL::Rect& rect, uint64_t channels) const override {
        if (channels != m_pixels.channels || !m_bounds.contains(rect) || rect.isNull())
            return ImageBuffer();
        IMGLIB::Image view;
        Private::checkImglib(
            IMGLIB::GetSubImage(&m_pixels, rect.xmin, rect.ymin, rect.xmax, rect.ymax, &view),
            getNameAtTime());
        return Private::ImageBufferAccess::view(view, m_owner, "MemoryImage :" + getName());
    }

protected:
    std::string getTypeString() override { return "MemoryImage"; }
    void computeCacheID(CacheIDStream& s) override {
        // The engine cannot see the pixels change, so each task is its own
        // image (see createMemoryImageTask).
        s << m_serial;
    }
    uint64_t computeOutputChannels() override { return m_pixels.channels; }
    UTIL::Region computeOutputDataRegion() override { return UTIL::Region(m_bounds); }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        Private::checkImglib(IMGLIB::CopyInto(out, &m_pixels), getNameAtTime());
    }

private:
    const IMGLIB::Image m_pixels;
    const UTIL::Rect m_bounds;  // of m_pixels
    const std::shared_ptr<const void> m_owner;
    const uint64_t m_serial;
};

}  // namespace

TaskPtr createMemoryImageTask(const std::string& name, float time, const IMGLIB::Image& pixels,
                              std::shared_ptr<const void> owner) {
    if (!IMGLIB::IsChannelMaskValid(pixels.channels))
        throw std::invalid_argument(name + ": invalid channel mask " +
                                    std::to_string(pixels.channels));
    const bool empty = pixels.x2 <= pixels.x1 || pixels.y2 <= pixels.y1;
    if (!empty && !pixels.pixelPtr) throw std::invalid_argument(name + ": null pixels");
    const int64_t rowBytes = (pixels.x2 - pixels.x1) * IMGLIB::GetPixelBytes(pixels.channels);
    if (!empty && pixels.rowBytes < rowBytes)
        throw std::invalid_argument(name + ": rows of " + std::to_string(pixels.rowBytes) +
                                    " bytes hold fewer than " + std::to_string(rowBytes));
    return TaskPtr(new MemoryImageTask(name, time, pixels, std::move(owner)));
}

}  // namespace TESSERA
