// Reading image files, region by region.
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "exceptions.h"
#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "imglib/rowops.h"
#include "io/channelmap.h"
#include "io/imagefiles.h"
#include "private/operation.h"
#include "private/pixelview.h"
#include "rendermanager.h"
#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/speculativecache.h"
#include "util/threadpool.h"

namespace TESSERA {
namespace {

// What tells one version of a file from another without reading it: the
// device and inode, the size and the modification time to the nanosecond.
// A file written again at the same path is a new input.
std::string fileIdentity(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::string();
    std::ostringstream id;
    id << st.st_dev << ':' << st.st_ino << ':' << st.st_size << ':' << st.st_mtim.tv_sec << '.'
       << st.st_mtim.tv_nsec;
    return id.str();
}

// Per path: how often it was forgotten (part of each new file input's
// identity), and the cache IDs of the file inputs made for it since.
struct FileRegistry {
    std::mutex mutex;
    std::map<std::string, uint64_t> generation;
    std::map<std::string, std::set<std::string>> cacheIDs;

    static FileRegistry& instance() {
        static FileRegistry* registry = new FileRegistry;  // outlives every task
        return *registry;
    }
    uint64_t generationOf(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex);
        return generation[path];
    }
    void add(const std::string& path, const std::string& cacheID) {
        std::lock_guard<std::mutex> lock(mutex);
        cacheIDs[path].insert(cacheID);
    }
    std::set<std::string> forget(const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex);
        ++generation[path];
        std::set<std::string> ids;
        ids.swap(cacheIDs[path]);
        return ids;
    }
};

std::unique_ptr<Private::ImageReader> openFile(const std::string& task, const std::string& path,
                                               int subimage, int level = 0) {
    std::string error;
    auto in = Private::openImageReader(path, subimage, level, error);
    if (!in) throw RenderTaskRenderingException(task, "cannot open '" + path + "': " + error, -1);
    return in;
}

class FileInTask : public RenderTask, public Private::DirectSource {
public:
    FileInTask(const std::string& name, float time, const FileInParams& params)
        : RenderTask(name, time), m_params(params), m_part(params.subimage) {
        auto in = openFile(getNameAtTime(), params.path, m_part, params.level);
        if (!params.view.empty() && !in->info().partViews.empty())
            in = openFile(getNameAtTime(), params.path, m_part = partOfView(in->info()),
                          params.level);
        m_info = in->info();
        m_fileIdentity = fileIdentity(params.path);
        m_generation = FileRegistry::instance().generationOf(params.path);
        Private::ChannelChoice choice{params.layer, params.layerInOrder, params.view};
        // In a multi-part file the part chosen is the view's.
        if (!m_info.partViews.empty() && m_info.views.empty()) choice.view.clear();
        try {
            m_map = Private::mapFileChannels(m_info.channelNames, m_info.views, choice);
        } catch (const std::runtime_error& e) {
            throw RenderTaskRenderingException(
                getNameAtTime(), "cannot read '" + params.path + "': " + e.what(), -1);
        }
        if (!m_map.note.empty())
            RenderManager::debugStream()
                << getNameAtTime() << " reads layer '" << params.layer << "' of '" << params.path
                << "' in the file's order: " << m_map.note << std::endl;
        m_dataWindow = m_info.dataWindow;
        layOutBlocks();
    }

protected:
    std::string getTypeString() override { return "FileIn"; }
    void computeCacheID(CacheIDStream& s) override {
        // The file's identity as far as a reader can tell without reading it all.
        s << m_params.path << ',' << m_part << ',' << m_params.layer << ',' << m_params.layerInOrder
          << ',' << m_params.view << ',' << m_params.level << ',' << m_dataWindow << ','
          << m_info.channelNames.size() << ',' << m_info.description << ',' << m_fileIdentity << ','
          << m_generation;
    }
    uint64_t computeOutputChannels() override { return m_map.channels; }
    UTIL::Region computeOutputDataRegion() override { return UTIL::Region(m_dataWindow); }
    UTIL::Rect computeFormat() override { return m_info.displayWindow; }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void preRender() override {
        // Opened now so that a file gone since the graph was built fails
        // the render at once.
        auto reader = openFile(getNameAtTime(), m_params.path, m_part, m_params.level);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.push_back(std::move(reader));
    }
    void readDirectly() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readDirectly = true;
    }
    void postRender() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.clear();
        m_blocks.clear();
        m_recent.clear();
        m_recentPosition.clear();
        m_readDirectly = false;
        m_everRead.clear();
        m_tallestRead = 0;
        m_extraRows = 0;
    }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        const UTIL::Rect rect =
            UTIL::Rect(out->x1, out->y1, out->x2, out->y2).intersection(m_dataWindow);
        if (rect.isNull()) return;
        const UTIL::Rect grid = blockSize();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_tallestRead = std::max(m_tallestRead, rect.height());
        }
        const int64_t bx0 = (rect.xmin - m_dataWindow.xmin) / grid.xmax;
        const int64_t bx1 = (rect.xmax - 1 - m_dataWindow.xmin) / grid.xmax;
        const int64_t by0 = (rect.ymin - m_dataWindow.ymin) / grid.ymax;
        const int64_t by1 = (rect.ymax - 1 - m_dataWindow.ymin) / grid.ymax;
        // Blocks another thread is decoding are taken last: meanwhile this
        // thread decodes the others, so threads working along the same row
        // of tiles (which need the same bands) decode different blocks.
        std::vector<std::pair<int64_t, int64_t>> busy;
        for (int64_t by = by0; by <= by1; ++by)
            for (int64_t bx = bx0; bx <= bx1; ++bx) {
                if (std::optional<ImageBuffer> block = this->block(bx, by, false))
                    copyBlock(out, bx, by, *block);
                else
                    busy.emplace_back(bx, by);
            }
        for (const auto& [bx, by] : busy) copyBlock(out, bx, by, *this->block(bx, by, true));
    }

private:
    // The part of a multi-part file that holds the view asked for: the
    // subimage-th of the parts of that view.
    int partOfView(const Private::ImageFileInfo& info) const {
        std::vector<int> parts;
        std::vector<std::string> views;
        for (size_t p = 0; p < info.partViews.size(); ++p) {
            if (info.partViews[p] == m_params.view) parts.push_back(int(p));
            if (!info.partViews[p].empty() &&
                std::find(views.begin(), views.end(), info.partViews[p]) == views.end())
                views.push_back(info.partViews[p]);
        }
        if (size_t(m_params.subimage) < parts.size()) return parts[size_t(m_params.subimage)];
        std::string list;
        for (const std::string& v : views) list += (list.empty() ? "" : ", ") + v;
        throw RenderTaskRenderingException(
            getNameAtTime(),
            "cannot read '" + m_params.path + "': it has no " +
                (parts.empty() ? "view '" + m_params.view + "'"
                               : "part " + std::to_string(m_params.subimage) + " of view '" +
                                     m_params.view + "'") +
                " (views: " + (list.empty() ? "none" : list) + ")",
            -1);
    }

    // Files are read in blocks: a tiled file's tiles, a scanline file's bands
    // of rows. (xmax, ymax) is the block size.
    UTIL::Rect blockSize() const {
        if (m_info.tileWidth > 0) return UTIL::Rect(0, 0, m_info.tileWidth, m_info.tileHeight);
        // Bands of about kBandBytes (fewer rows for wide images), in whole
        // chunks of the file.
        const int64_t rowBytes =
            std::max<int64_t>(1, m_dataWindow.width()) * int64_t(m_info.channelNames.size()) * 4;
        const int64_t rows = std::clamp<int64_t>(kBandBytes / rowBytes, 1, kBandRows);
        const int64_t chunk = std::max<int64_t>(1, m_info.rowsPerChunk);
        return UTIL::Rect(0, 0, m_dataWindow.width(), (rows + chunk - 1) / chunk * chunk);
    }

    // A block being decoded or decoded. The thread that made the slot reads
    // the block; any other that needs it meanwhile waits for that read
    // instead of reading it again.
    struct Block {
        std::mutex mutex;
        std::condition_variable done;
        bool ready = false;
        ImageBuffer image;
        std::exception_ptr error;
    };
    using BlockKey = std::pair<int64_t, int64_t>;

    // The decoded block: read on first use, on the thread that needs it
    // (several blocks are read at once, each with a reader of its own), kept
    // while recently used (as an image buffer under the "FILEIN."
    // accounting, so it counts against the memory budget and may be
    // swapped out). A render touches blocks in tile order, so the last few
    // rows of tiles' worth are all it comes back to.
    // Without `wait`, nothing when another thread is decoding the block.
    std::optional<ImageBuffer> block(int64_t bx, int64_t by, bool wait) {
        std::shared_ptr<Block> slot;
        bool mine = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            std::shared_ptr<Block>& entry = m_blocks[{bx, by}];
            if (!entry) entry = std::make_shared<Block>(), mine = true;
            slot = entry;
            touch({bx, by});
        }
        if (!mine) {
            std::unique_lock<std::mutex> lock(slot->mutex);
            if (!slot->ready && !wait) return std::nullopt;
            Util::ThreadPool::Blocking blocking;
            slot->done.wait(lock, [&] { return slot->ready; });
            if (slot->error) std::rethrow_exception(slot->error);
            return slot->image;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_everRead.insert({bx, by}).second && m_readDirectly) keepMoreRows();
        }
        ImageBuffer image;
        std::exception_ptr error;
        try {
            image = read(bx, by);
        } catch (...) {
            error = std::current_exception();
        }
        {
            std::lock_guard<std::mutex> lock(slot->mutex);
            slot->image = image;
            slot->error = error;
            slot->ready = true;
        }
        slot->done.notify_all();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            // A failed read is not kept: a later render tries again.
            if (error) forget({bx, by}, slot);
            evict();
        }
        if (error) std::rethrow_exception(error);
        return image;
    }

    // Under m_mutex: key becomes the most recently used block.
    void touch(const BlockKey& key) {
        auto at = m_recentPosition.find(key);
        if (at != m_recentPosition.end()) m_recent.erase(at->second);
        m_recent.push_front(key);
        m_recentPosition[key] = m_recent.begin();
    }
    void forget(const BlockKey& key, const std::shared_ptr<Block>& slot) {
        auto found = m_blocks.find(key);
        if (found == m_blocks.end() || found->second != slot) return;
        m_blocks.erase(found);
        m_recent.erase(m_recentPosition.at(key));
        m_recentPosition.erase(key);
    }
    // Under m_mutex: drops the least recently used finished blocks beyond
    // the rows of blocks the tallest read spans, a quarter row more (the
    // threads work along one row of tiles, and the next row starts while the
    // last tiles of this one finish) and the rows added when a dropped block
    // was needed again; eight at least. A tile being rendered holds its own handle; a block asked
    // for again after it went is read again.
    void evict() {
        const UTIL::Rect size = blockSize();
        const int64_t tallest =
            std::max<int64_t>(m_tallestRead, RenderManager::getGlobalTileHeight());
        const int64_t across = (m_dataWindow.width() + size.xmax - 1) / size.xmax;
        const int64_t rows = rowsSpanned(tallest) + m_extraRows;
        const size_t keep = size_t(std::max<int64_t>(8, rows * across + across / 4));
        for (auto key = m_recent.end(); m_blocks.size() > keep && key != m_recent.begin();) {
            --key;
            const std::shared_ptr<Block> slot = m_blocks.at(*key);  // outlives the lock
            std::lock_guard<std::mutex> lock(slot->mutex);
            if (!slot->ready) continue;
            m_blocks.erase(*key);
            m_recentPosition.erase(*key);
            key = m_recent.erase(key);
        }
    }

    // The most rows of blocks a read of `height` rows can touch.
    int64_t rowsSpanned(int64_t height) const {
        const int64_t block = blockSize().ymax;
        return (std::max<int64_t>(height, 1) - 1 + block - 1) / block + 1;
    }

    // Under m_mutex: a block was read again while consumers read the task
    // directly, so their tiles do not go row by row (a rotation's); a
    // quarter more rows are kept (one at least), while the blocks kept stay
    // within half the image memory budget. (Tiles of the task's own are
    // made once each, whatever the order.)
    void keepMoreRows() {
        const UTIL::Rect size = blockSize();
        const int64_t rowBytes = m_dataWindow.width() * size.ymax * m_layout.pixelBytes;
        const int64_t budgetRows =
            int64_t(RenderManager::GetMaxImageMemory() << 20) / 2 / std::max<int64_t>(1, rowBytes);
        const int64_t rows = rowsSpanned(m_tallestRead) + m_extraRows;
        if (rows < budgetRows)
            m_extraRows += std::min(budgetRows - rows, std::max<int64_t>(1, rows / 4));
    }

    // A reader of the file no other thread is using.
    std::unique_ptr<Private::ImageReader> takeReader() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_readers.empty()) {
                auto reader = std::move(m_readers.back());
                m_readers.pop_back();
                return reader;
            }
        }
        return openFile(getNameAtTime(), m_params.path, m_part, m_params.level);
    }
    void returnReader(std::unique_ptr<Private::ImageReader> reader) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.push_back(std::move(reader));
    }

    // The pixels of block (bx, by).
    UTIL::Rect blockArea(int64_t bx, int64_t by) const {
        const UTIL::Rect size = blockSize();
        return UTIL::Rect(m_dataWindow.xmin + bx * size.xmax, m_dataWindow.ymin + by * size.ymax,
                          m_dataWindow.xmin + (bx + 1) * size.xmax,
                          m_dataWindow.ymin + (by + 1) * size.ymax)
            .intersection(m_dataWindow);
    }

    // A decoded block keeps the task's channels in the task's order, as
    // floats, or as halves when the file stores every channel so (half the
    // memory, and exact). Halves are kept in an image buffer, so that the
    // budget counts them and may swap them out, as one float channel per two
    // halves: row y of the buffer is row y of the block.
    bool keepsHalves() const { return m_info.halfChannels; }
    UTIL::Rect halfStorage(const UTIL::Rect& area) const {
        const int64_t halves = area.width() * IMGLIB::GetChannelCount(m_map.channels);
        return UTIL::Rect(0, area.ymin, (halves + 1) / 2, area.ymax);
    }

    // Copies the part of block (bx, by) that out covers into out.
    void copyBlock(const IMGLIB::Image* out, int64_t bx, int64_t by, ImageBuffer block) const {
        ImageBuffer_LockScoper lock(block);
        if (!keepsHalves()) {
            IMGLIB::CopyInto(out, block.getImage());
            return;
        }
        const UTIL::Rect area = blockArea(bx, by);
        const UTIL::Rect part = area.intersection(UTIL::Rect(out->x1, out->y1, out->x2, out->y2));
        if (part.isNull()) return;
        const int64_t k = IMGLIB::GetChannelCount(m_map.channels);
        const IMGLIB::Image* halves = block.getImage();
        // Rows widen straight into out when it has the block's channels;
        // otherwise through one row of the block's own.
        std::vector<float> row;
        IMGLIB::Image rowImage;
        if (out->channels != m_map.channels) {
            row.resize(size_t(part.width() * k));
            rowImage.channels = m_map.channels;
            rowImage.x1 = part.xmin;
            rowImage.x2 = part.xmax;
            rowImage.rowBytes = int64_t(row.size() * sizeof(float));
            rowImage.pixelPtr = row.data();
        }
        for (int64_t y = part.ymin; y < part.ymax; ++y) {
            const uint16_t* src =
                reinterpret_cast<const uint16_t*>(halves->row(y)) + (part.xmin - area.xmin) * k;
            if (row.empty()) {
                IMGLIB::RowHalfToFloat(
                    IMGLIB::GetPixelAddress(out, part.xmin, y, k * int64_t(sizeof(float))), src,
                    size_t(part.width() * k));
                continue;
            }
            IMGLIB::RowHalfToFloat(row.data(), src, row.size());
            rowImage.y1 = y;
            rowImage.y2 = y + 1;
            IMGLIB::CopyInto(out, &rowImage);
        }
    }

    // Decodes one block straight into a new image buffer.
    ImageBuffer read(int64_t bx, int64_t by) {
        const UTIL::Rect area = blockArea(bx, by);
        // Refuse what the image memory budget could not hold (a damaged
        // header declaring a huge width).
        const uint64_t bytes = uint64_t(area.area()) * uint64_t(m_layout.pixelBytes);
        const uint64_t budget = RenderManager::GetMaxImageMemory() << 20;
        if (bytes > budget)
            throw RenderTaskRenderingException(
                getNameAtTime(),
                "cannot read '" + m_params.path + "': a block of " + std::to_string(area.width()) +
                    " x " + std::to_string(area.height()) + " pixels needs " +
                    std::to_string(bytes >> 20) + " MB, more than the image memory budget (" +
                    std::to_string(budget >> 20) + " MB)",
                -1);
        ImageBuffer image(keepsHalves() ? IMGLIB::CHANNEL_R : m_map.channels,
                          keepsHalves() ? halfStorage(area) : area, "FILEIN." + m_params.path);
        {
            ImageBuffer_LockScoper imageLock(image);
            const IMGLIB::Image* dst = image.getImage();
            auto* first = reinterpret_cast<uint8_t*>(dst->row(area.ymin));
            std::unique_ptr<Private::ImageReader> file = takeReader();
            const std::string error = file->read(area, m_layout, first, dst->rowBytes);
            if (!error.empty())
                throw RenderTaskRenderingException(
                    getNameAtTime(), "cannot read '" + m_params.path + "': " + error, -1);
            returnReader(std::move(file));
            const int64_t element = m_layout.elementBytes();
            for (const auto& [to, from] : m_repeats)
                for (int64_t y = 0; y < area.height(); ++y) {
                    uint8_t* pixel = first + y * dst->rowBytes;
                    for (int64_t x = 0; x < area.width(); ++x, pixel += m_layout.pixelBytes)
                        std::memcpy(pixel + to * element, pixel + from * element, size_t(element));
                }
        }
        return image;
    }

    // Where the file's channels go in a block: the task's channels in the
    // task's order; a file channel several of them take (a grey file's one
    // channel as R, G and B) is decoded into the first and repeated.
    void layOutBlocks() {
        m_layout.offset.assign(m_info.channelNames.size(), -1);
        m_layout.halves = keepsHalves();
        const int64_t element = m_layout.elementBytes();
        int64_t index = 0;
        std::map<int, int64_t> firstIndexOf;  // file channel -> its first element
        for (const auto& [bit, c] : m_map.reads) {
            if (firstIndexOf.count(c))
                m_repeats.emplace_back(index, firstIndexOf[c]);
            else
                firstIndexOf[c] = index, m_layout.offset[size_t(c)] = int(index * element);
            ++index;
        }
        m_layout.pixelBytes = index * element;
    }

    static constexpr int64_t kBandRows = 64;
    static constexpr int64_t kBandBytes = int64_t(1) << 20;

    FileInParams m_params;
    int m_part;  // of a multi-part file
    Private::ImageFileInfo m_info;
    Private::FileChannelMap m_map;
    std::string m_fileIdentity;
    uint64_t m_generation = 0;
    Private::PixelLayout m_layout;
    std::vector<std::pair<int64_t, int64_t>> m_repeats;  // (element, element it repeats)
    UTIL::Rect m_dataWindow;
    // m_mutex guards the readers, the blocks and what the reads asked
    // (m_readDirectly to m_extraRows); it is taken before a
    // block's own mutex, and never held while a file is read.
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Private::ImageReader>> m_readers;  // open, not in use
    std::map<BlockKey, std::shared_ptr<Block>> m_blocks;
    std::list<BlockKey> m_recent;  // most recently used first
    std::map<BlockKey, std::list<BlockKey>::iterator> m_recentPosition;
    bool m_readDirectly = false;    // consumers read the task, not its tiles
    std::set<BlockKey> m_everRead;  // in this render
    int64_t m_tallestRead = 0;      // the most rows one read asked for
    int64_t m_extraRows = 0;        // rows kept for reads out of row order
};

}  // namespace

void useRenderThreadsForFiles() {
    Private::useRenderThreadsInModule();
}

TaskPtr createFileInTask(const std::string& name, float time, const FileInParams& params) {
    Private::checkParameters("filein", name,
                             {{"subimage", params.subimage}, {"level", params.level}});
    TaskPtr task(new FileInTask(name, time, params));
    FileRegistry::instance().add(params.path, task->getCacheID());
    return task;
}

void forgetFile(const std::string& path) {
    Private::ImageAllocator::instance().speculativeCache().forget(
        FileRegistry::instance().forget(path));
}

FileWindows readFileWindows(const std::string& path) {
    auto in = openFile("readFileWindows", path, 0);
    return FileWindows{in->info().dataWindow, in->info().displayWindow};
}

namespace Private {

void declareFileOperations(OperationList& ops) {
    ops.push_back(
        {"filein",
         "an image file",
         {required("path", ParamType::Path, "plate.exr", "the file"),
          Param{"subimage", ParamType::Int, 0,
                "which part of a multi-part file (among the parts of the view, when a view is "
                "chosen)"}
              .atLeast(0),
          Param{"layer", ParamType::String, "",
                "the layer that fills R, G, B, A (\"diffuse\" reads diffuse.R or diffuse.red, "
                "any case); empty: the file's own R, G, B, A"},
          Param{"layerInOrder", ParamType::Bool, false,
                "a layer without R, G, B, A channels (forward.u, forward.v) fills R, G, B, A in "
                "the file's order"},
          Param{"view", ParamType::String, "",
                "a view of a multi-view file (\"left\", \"right\"); empty: the default view"},
          Param{"level", ParamType::Int, 0,
                "the mip level of a mip-mapped file (0: full size; each level halves it)"}
              .range(0, 31)},
         {},
         [](const OperationArgs& a) {
             FileInParams params;
             params.path = a.path("path");
             params.subimage = a.integer("subimage");
             params.layer = a.text("layer");
             params.layerInOrder = a.flag("layerInOrder");
             params.view = a.text("view");
             params.level = a.integer("level");
             return createFileInTask(a.node(), a.time(), params);
         },
         "Any format OpenImageIO reads (EXR scanline and tiled, every compression, TIFF, PNG, "
         "JPEG, DPX, ...). Every channel is read under its name: R, G, B, A and Z keep their "
         "places, grey (Y) is R = G = B, and other channels (`diffuse.R`, `forward.u`, `mask`) "
         "keep their names for `shuffle`, `copy` and the outputs; nothing is matched by "
         "position. Deep EXR files are flattened as `oiiotool --flatten` does: samples "
         "composited front to back by Z, Z the nearest sample's."});
}

}  // namespace Private

}  // namespace TESSERA
