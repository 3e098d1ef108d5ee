#include "memorybounded.h"

#include <atomic>
#include <sstream>

#include "filtertasks.h"
#include "generatortasks.h"
#include "imagebuffer.h"
#include "measure.h"
#include "rendermanager.h"
#include "xml/element.h"

namespace compare {
namespace {

using namespace TESSERA;
using Orrery3::XmlIO::v1::ElementPtr;

// Counts the tiles and lets them go: the output is never held whole.
class CountingObserver : public RenderObserver {
public:
    void tileDone(const ImageBuffer&, const OutputTileID&) override { ++tiles; }

    std::atomic<int64_t> tiles{0};
};

// The value of the statistics entry called `name`, anywhere in the report.
int64_t statistic(const ElementPtr& element, const std::string& name) {
    if (element->getName() == "entry" && element->getAttr("name") == name)
        return std::stoll(element->getAttr("value"));
    for (const ElementPtr& child : element->getChildren())
        if (const int64_t value = statistic(child, name)) return value;
    return 0;
}

}  // namespace

MemoryBoundedReport runMemoryBounded(int threads) {
    MemoryBoundedReport report;
    report.size = 16384;
    report.budgetMegabytes = 256;
    const uint64_t previousBudget = RenderManager::GetMaxImageMemory();
    RenderManager::setRenderThreads(uint64_t(threads));
    RenderManager::setSpeculativeCachingEnable(false);
    RenderManager::ClearRenderTaskCache();
    RenderManager::SetMaxImageMemory(uint64_t(report.budgetMegabytes));
    RenderManager::resetStatistics();

    const UTIL::Rect area(0, 0, report.size, report.size);
    PerChannelBlurParameters params;
    params.blur.sizeX = params.blur.sizeY = 40.0f;
    const TaskPtr graph =
        createBlur("blur", 0, params,
                   createCheckerboardTask("checks", 0, Color4f(0.9f, 0.6f, 0.3f, 1),
                                          Color4f(0.1f, 0.2f, 0.3f, 1), 64.0f, area));
    const RCX_ptr_v4::ref_ptr<CountingObserver> observer(new CountingObserver);
    const int64_t before = residentBytes();
    resetPeakResident();
    report.seconds = secondsOf([&] {
        RenderManager::Render({RenderDescription(graph, area, IMGLIB::CHANNELS_RGBA)}, observer,
                              nullptr, true, RENDERTYPE_BATCH);
    });
    report.peakResidentBytes = std::max<int64_t>(0, peakResidentBytes() - before);
    report.tilesDelivered = observer->tiles;
    const int64_t tile = RenderManager::getGlobalTileWidth();
    report.tilesExpected = ((report.size + tile - 1) / tile) * ((report.size + tile - 1) / tile);

    const ElementPtr stats = RenderManager::getStatistics();
    report.peakImageBytes = statistic(stats, "Peak Memory Usage");
    report.swappedOut = statistic(stats, "Tile Swap Count (to disk)");
    report.swappedIn = statistic(stats, "Tile Swap Count (from disk)");
    report.peakDiskBytes = statistic(stats, "Peak Disk Usage");
    RenderManager::SetMaxImageMemory(previousBudget);
    return report;
}

std::string describe(const MemoryBoundedReport& r) {
    constexpr double kMiB = 1024.0 * 1024.0;
    std::ostringstream s;
    s.precision(1);
    s << std::fixed << "A " << r.size << "x" << r.size
      << " RGBA float output (4 GiB) of a gaussian blur of size 40 over a checkerboard, with a "
      << r.budgetMegabytes << " MB image memory budget, the tiles let go as they arrive:\n\n"
      << "| measure | value |\n|---|---|\n"
      << "| time | " << r.seconds << " s |\n"
      << "| tiles delivered | " << r.tilesDelivered << " of " << r.tilesExpected << " |\n"
      << "| peak resident memory added | " << double(r.peakResidentBytes) / kMiB << " MiB |\n"
      << "| peak image memory (allocator) | " << double(r.peakImageBytes) / kMiB << " MiB |\n"
      << "| tiles swapped to disk / back | " << r.swappedOut << " / " << r.swappedIn << " |\n"
      << "| peak disk use | " << double(r.peakDiskBytes) / kMiB << " MiB |\n";
    return s.str();
}

}  // namespace compare
