#include "info.h"

#include <cmath>
#include <iomanip>
#include <limits>
#include <mutex>
#include <sstream>
#include <vector>

#include "tessera.h"

namespace tessera_cli {

using namespace TESSERA;

namespace {

struct ChannelStatistics {
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();
    double sum = 0;
    uint64_t finite = 0, nan = 0, inf = 0;

    void add(float v) {
        if (std::isnan(v)) {
            ++nan;
        } else if (std::isinf(v)) {
            ++inf;
        } else {
            min = std::min(min, double(v));
            max = std::max(max, double(v));
            sum += v;
            ++finite;
        }
    }
    void add(const ChannelStatistics& o) {
        min = std::min(min, o.min);
        max = std::max(max, o.max);
        sum += o.sum;
        finite += o.finite;
        nan += o.nan;
        inf += o.inf;
    }
};

// Each tile's statistics, taken on the render thread that delivered it and
// added under the lock (the tiles themselves are not kept).
class StatisticsObserver final : public RenderObserver {
public:
    StatisticsObserver(const UTIL::Rect& rect, uint64_t channels)
        : m_rect(rect), m_total(size_t(IMGLIB::GetChannelCount(channels))) {}

    void tileDone(const ImageBuffer& image, const OutputTileID&) override {
        ImageBuffer tile = image;
        ImageBuffer_LockScoper lock(tile);
        const IMGLIB::Image* img = tile.getImage();
        const UTIL::Rect area = tile.getBounds().intersection(m_rect);
        const size_t count = m_total.size();
        std::vector<ChannelStatistics> local(count);
        for (int64_t y = area.ymin; y < area.ymax; ++y) {
            const float* p = img->row(y) + (area.xmin - img->x1) * int64_t(count);
            for (int64_t x = area.xmin; x < area.xmax; ++x)
                for (size_t c = 0; c < count; ++c) local[c].add(*p++);
        }
        std::lock_guard<std::mutex> guard(m_mutex);  // guards m_total
        for (size_t c = 0; c < count; ++c) m_total[c].add(local[c]);
    }

    std::vector<ChannelStatistics> totals() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_total;
    }

private:
    const UTIL::Rect m_rect;
    std::mutex m_mutex;
    std::vector<ChannelStatistics> m_total;
};

std::string rectText(const UTIL::Rect& r) {
    std::ostringstream text;
    text << "[" << r.xmin << ", " << r.ymin << ", " << r.xmax << ", " << r.ymax << "] ("
         << r.width() << "x" << r.height() << ")";
    return text.str();
}

// Every channel a render reads of one part (and view), with its statistics.
void printStatistics(std::ostream& out, const std::string& path, int part, const std::string& view,
                     const UTIL::Rect& dataWindow) {
    FileInParams params(path, part);
    params.view = view;
    const TaskPtr file = createFileInTask("info", 0, params);
    uint64_t channels = 0;
    file->getOutputDescription(&channels, nullptr);
    RenderDescription description;
    description.task = file;
    description.rect = dataWindow;
    description.channels = channels;
    auto* observer = new StatisticsObserver(dataWindow, channels);
    const RenderObserverPtr keep(observer);
    if (!dataWindow.isNull()) renderOutputs({description}, keep);
    const std::vector<std::string> names = IMGLIB::GetChannelNames(channels);
    const std::vector<ChannelStatistics> totals = observer->totals();
    out << "    statistics" << (view.empty() ? "" : " of view " + view) << " (as read):\n";
    for (size_t c = 0; c < names.size(); ++c) {
        const ChannelStatistics& s = totals[c];
        out << "      " << std::left << std::setw(14) << names[c] << std::right;
        if (s.finite)
            out << " min " << s.min << "  max " << s.max << "  mean " << s.sum / double(s.finite);
        else
            out << " no finite value";
        out << "  NaN " << s.nan << "  inf " << s.inf << "\n";
    }
}

}  // namespace

void describeFile(std::ostream& out, const std::string& path, bool statistics) {
    const FileDescription file = TESSERA::describeFile(path);
    out << path << ": " << file.format << ", " << file.parts.size()
        << (file.parts.size() == 1 ? " part" : " parts");
    if (!file.views.empty()) {
        out << ", views";
        for (const std::string& v : file.views) out << " " << v;
    }
    out << "\n";
    for (size_t p = 0; p < file.parts.size(); ++p) {
        const FilePartDescription& part = file.parts[p];
        out << "  part " << p;
        if (!part.name.empty()) out << " \"" << part.name << "\"";
        if (!part.view.empty()) out << " (view " << part.view << ")";
        out << ": " << part.storage;
        if (part.tileWidth) out << " " << part.tileWidth << "x" << part.tileHeight;
        if (part.levels > 1) out << ", " << part.levels << " levels";
        if (!part.compression.empty()) out << ", " << part.compression;
        out << "\n    data window    " << rectText(part.dataWindow) << "\n    display window "
            << rectText(part.displayWindow) << "\n    channels      ";
        for (size_t c = 0; c < part.channels.size(); ++c) {
            // Runs of one type name it once: "R, G, B, A half; Z float".
            out << (c ? ", " : " ") << part.channels[c].name;
            if (c + 1 == part.channels.size() || part.channels[c + 1].type != part.channels[c].type)
                out << " (" << part.channels[c].type << ")";
        }
        out << "\n";
        for (const auto& [name, value] : part.attributes)
            out << "    " << name << ": " << value << "\n";
        if (!statistics) continue;
        // Views in one part are read one view at a time, the default first.
        const bool viewsInPart = !file.views.empty() && part.view.empty();
        if (!viewsInPart) {  // a part of one view is read as it is
            printStatistics(out, path, int(p), "", part.dataWindow);
            continue;
        }
        for (const std::string& view : file.views)
            printStatistics(out, path, int(p), view, part.dataWindow);
    }
}

}  // namespace tessera_cli
