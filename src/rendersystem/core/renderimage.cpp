#include "renderimage.h"

#include <unistd.h>

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

// Copies each delivered tile into the destination, unless it was rendered
// there; tiles cover disjoint parts of it, so the copies need no lock.
class CopyingObserver : public RenderObserver {
public:
    CopyingObserver(const IMGLIB::Image& destination, std::string task)
        : m_destination(destination), m_task(std::move(task)) {}

    void tileDone(const ImageBuffer& tile, const OutputTileID&) override {
        ImageBuffer image = tile;
        ImageBuffer_LockScoper lock(image);
        const IMGLIB::Image* pixels = image.getImage();
        if (isInDestination(*pixels)) return;
        Private::checkImglib(IMGLIB::CopyInto(&m_destination, pixels), m_task);
    }

private:
    bool isInDestination(const IMGLIB::Image& pixels) const {
        const IMGLIB::Image& d = m_destination;
        return pixels.channels == d.channels && pixels.rowBytes == d.rowBytes &&
               pixels.x1 >= d.x1 && pixels.y1 >= d.y1 && pixels.x2 <= d.x2 && pixels.y2 <= d.y2 &&
               pixels.pixelPtr ==
                   d.row(pixels.y1) +
                       (pixels.x1 - d.x1) * int64_t(IMGLIB::GetChannelCount(d.channels));
    }

    const IMGLIB::Image m_destination;
    const std::string m_task;
};

// Counts the output tiles on their way to the host's observer.
class CountingObserver : public RenderObserver {
public:
    explicit CountingObserver(RenderObserverPtr host) : m_host(std::move(host)) {}
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
        m_host->tileDone(image, id);
        m_done.fetch_add(1, std::memory_order_relaxed);
    }
    void internalTileDone(const std::string& task, const std::string& description,
                          double seconds) override {
        m_host->internalTileDone(task, description, seconds);
    }
    void outputFinished(size_t outputIndex) override { m_host->outputFinished(outputIndex); }
    void renderFinished(RenderStatus status, const std::string& message) override {
        m_host->renderFinished(status, message);
    }
    uint64_t done() const { return m_done.load(std::memory_order_relaxed); }

private:
    const RenderObserverPtr m_host;
    std::atomic<uint64_t> m_done{0};
};

// renderOutputs, with the memory each output's tiles are rendered in
// (none for an output past the end of destinations).
void renderAndWait(const std::vector<RenderDescription>& outputs, const RenderObserverPtr& observer,
                   const RenderOptions& options, const std::vector<IMGLIB::Image>& destinations) {
    if (!observer) throw UTIL::ErrorException("renderOutputs: no RenderObserver given");
    RCX_ptr_v4::ref_ptr<CountingObserver> counting(new CountingObserver(observer));
    RenderProgress progress;
    for (const RenderDescription& output : outputs)
        progress.tilesTotal +=
            TileID::countTiles(output.rect, int(RenderManager::getGlobalTileWidth()),
                               int(RenderManager::getGlobalTileHeight()));
    const auto report = [&] {
        if (!options.progress) return;
        progress.tilesDone = counting->done();
        options.progress(progress);
    };
    if (options.cancel && options.cancel->load())
        throw RenderCancelledException("Render cancelled.");
    Private::RenderController::get(options.type)
        .render(
            outputs, counting, nullptr, true, false,
            [&] {
                report();
                return !(options.cancel && options.cancel->load());
            },
            true, destinations);
    report();
}

}  // namespace

void renderOutputs(const std::vector<RenderDescription>& outputs, const RenderObserverPtr& observer,
                   const RenderOptions& options) {
    renderAndWait(outputs, observer, options, {});
}

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
    renderAndWait({RenderDescription(task, rect, destination.channels)},
                  RenderObserverPtr(new CopyingObserver(destination, task->getName())), options,
                  {destination});
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
    // The image is held whole: more than the machine's memory is refused
    // here, before an allocation that would fail (or wrap) deep inside.
    const double floats = double(rect.width()) * double(rect.height()) *
                          double(IMGLIB::GetChannelCount(out.channels));
    const double memory = double(::sysconf(_SC_PHYS_PAGES)) * double(::sysconf(_SC_PAGESIZE));
    if (floats * sizeof(float) > memory)
        throw UTIL::ErrorException("renderImage: task " + (task ? task->getName() : "(none)") +
                                   ": " + std::to_string(rect.width()) + " x " +
                                   std::to_string(rect.height()) + " pixels of " +
                                   std::to_string(IMGLIB::GetChannelCount(out.channels)) +
                                   " channels are more than this machine's memory holds");
    out.pixels.resize(size_t(floats));
    renderInto(task, out.image(), options);
    return out;
}

}  // namespace TESSERA
