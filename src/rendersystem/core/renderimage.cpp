#include "renderimage.h"

#include <mutex>

#include "imagebuffer.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "rendermanager.h"
#include "rendersystem/core/rendercontroller.h"
#include "tileid.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace {

// Copies each delivered tile into the destination; tiles cover disjoint
// parts of it, so the copies need no lock.
class CopyingObserver : public RenderObserver {
public:
    CopyingObserver(const IMGLIB::Image& destination, std::string task)
        : m_destination(destination), m_task(std::move(task)) {}

    void tileDone(const ImageBuffer& tile, const OutputTileID&) override {
        ImageBuffer image = tile;
        ImageBuffer_LockScoper lock(image);
        Private::checkImglib(IMGLIB::CopyInto(&m_destination, image.getImage()), m_task);
        m_done.fetch_add(1, std::memory_order_relaxed);
    }
    uint64_t done() const { return m_done.load(std::memory_order_relaxed); }

private:
    const IMGLIB::Image m_destination;
    const std::string m_task;
    std::atomic<uint64_t> m_done{0};
};

}  // namespace

void renderInto(const TaskPtr& task, const IMGLIB::Image& destination,
                const RenderOptions& options) {
    if (!task) throw UTIL::ErrorException("renderInto: no task given");
    if (!destination.pixelPtr || destination.width() == 0 || destination.height() == 0)
        throw UTIL::ErrorException("renderInto: task " + task->getName() +
                                   ": the destination image has no pixels");
    if (destination.rowBytes <
        destination.width() * int64_t(IMGLIB::GetPixelBytes(destination.channels)))
        throw UTIL::ErrorException("renderInto: task " + task->getName() + ": row bytes " +
                                   std::to_string(destination.rowBytes) +
                                   " hold less than a row of the destination");
    const UTIL::Rect rect(destination.x1, destination.y1, destination.x2, destination.y2);
    RCX_ptr_v4::ref_ptr<CopyingObserver> observer(
        new CopyingObserver(destination, task->getName()));
    RenderProgress progress;
    progress.tilesTotal = TileID::countTiles(rect, int(RenderManager::getGlobalTileWidth()),
                                             int(RenderManager::getGlobalTileHeight()));
    const auto poll = [&] {
        if (options.progress) {
            progress.tilesDone = observer->done();
            options.progress(progress);
        }
        return !(options.cancel && options.cancel->load());
    };
    if (options.cancel && options.cancel->load())
        throw RenderCancelledException("Render cancelled.");
    Private::RenderController::get(options.type)
        .render({RenderDescription(task, rect, destination.channels)}, observer, nullptr, true,
                false, poll);
    if (options.progress) {
        progress.tilesDone = observer->done();
        options.progress(progress);
    }
}

IMGLIB::Image RenderedImage::image() {
    IMGLIB::Image record;
    record.channels = channels;
    record.x1 = rect.xmin, record.y1 = rect.ymin, record.x2 = rect.xmax, record.y2 = rect.ymax;
    record.rowBytes = rect.width() * int64_t(IMGLIB::GetPixelBytes(channels));
    record.pixelPtr = pixels.data();
    return record;
}

RenderedImage renderImage(const TaskPtr& task, const UTIL::Rect& rect, uint64_t channels,
                          const RenderOptions& options) {
    if (rect.isNull())
        throw UTIL::ErrorException("renderImage: task " + (task ? task->getName() : "(none)") +
                                   ": the rectangle is empty");
    RenderedImage out;
    out.channels = IMGLIB::ValidateChannelMask(channels);
    if (out.channels == 0)
        throw UTIL::ErrorException("renderImage: task " + (task ? task->getName() : "(none)") +
                                   ": no channels asked for");
    out.rect = rect;
    out.pixels.resize(size_t(rect.width() * rect.height()) *
                      size_t(IMGLIB::GetChannelCount(out.channels)));
    renderInto(task, out.image(), options);
    return out;
}

}  // namespace TESSERA
