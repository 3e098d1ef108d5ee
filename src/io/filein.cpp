// Reading images with OpenImageIO, region by region.
#include <OpenImageIO/deepdata.h>
#include <OpenImageIO/imageio.h>
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include "exceptions.h"
#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/operation.h"
#include "rendermanager.h"
#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/speculativecache.h"
#include "util/threadpool.h"

namespace TESSERA {
namespace {

// The channel bits of a file's channel names (R, G, B, A, Z), and where each
// is in the file's pixels.
uint64_t channelsOf(const OIIO::ImageSpec& spec, int slots[IMGLIB::NUM_KNOWN_CHANNELS]) {
    static const char* const names[5] = {"R", "G", "B", "A", "Z"};
    uint64_t mask = 0;
    for (int bit = 0; bit < 5; ++bit) {
        slots[bit] = -1;
        for (int c = 0; c < spec.nchannels; ++c)
            if (spec.channel_name(c) == names[bit] ||
                (bit < 4 && spec.channel_name(c).size() == 1 &&
                 std::toupper(spec.channel_name(c)[0]) == names[bit][0])) {
                slots[bit] = c;
                mask |= uint64_t(1) << bit;
                break;
            }
    }
    // Grey with or without alpha ("Y", "YA"): R, G and B take the grey.
    if (!(mask & IMGLIB::CHANNELS_RGB))
        for (int c = 0; c < spec.nchannels; ++c)
            if (spec.channel_name(c) == "Y") {
                for (int bit = 0; bit < 3; ++bit) slots[bit] = c;
                mask |= IMGLIB::CHANNELS_RGB;
                break;
            }
    // Unnamed single-channel images are grey: R, G and B.
    if (!mask && spec.nchannels >= 1) {
        for (int bit = 0; bit < 3; ++bit) slots[bit] = std::min(bit, spec.nchannels - 1);
        mask = IMGLIB::CHANNELS_RGB;
        if (spec.nchannels == 4) slots[3] = 3, mask |= IMGLIB::CHANNEL_A;
    }
    return mask;
}

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

// One pixel of deep data flattened front to back: each channel the sum of
// its samples, each sample seen through the alpha of those in front; depth
// the nearest sample's. Samples without alpha are opaque.
void flattenDeepPixel(const OIIO::DeepData& deep, int64_t pixel, int channels, float* out) {
    const int z = deep.Z_channel(), a = deep.A_channel();
    const int n = deep.samples(pixel);
    std::vector<int> order(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) order[size_t(i)] = i;
    if (z >= 0)
        std::stable_sort(order.begin(), order.end(), [&](int p, int q) {
            return deep.deep_value(pixel, z, p) < deep.deep_value(pixel, z, q);
        });
    for (int c = 0; c < channels; ++c) out[c] = 0.0f;
    float through = 1.0f;  // how much of a sample the ones in front let pass
    for (int i : order) {
        for (int c = 0; c < channels; ++c)
            if (c != z) out[c] += through * deep.deep_value(pixel, c, i);
        through *= 1.0f - (a >= 0 ? std::clamp(deep.deep_value(pixel, a, i), 0.0f, 1.0f) : 1.0f);
    }
    if (z >= 0 && n > 0) out[z] = deep.deep_value(pixel, z, order.front());
}

std::unique_ptr<OIIO::ImageInput> openFile(const std::string& task, const std::string& path,
                                           int subimage) {
    auto in = OIIO::ImageInput::open(path);
    if (!in)
        throw RenderTaskRenderingException(task, "cannot open '" + path + "': " + OIIO::geterror(),
                                           -1);
    if (subimage != 0 && !in->seek_subimage(subimage, 0))
        throw RenderTaskRenderingException(
            task, "'" + path + "' has no subimage " + std::to_string(subimage), -1);
    return in;
}

class FileInTask : public RenderTask {
public:
    FileInTask(const std::string& name, float time, const FileInParams& params)
        : RenderTask(name, time), m_params(params) {
        auto in = openFile(getNameAtTime(), params.path, params.subimage);
        m_spec = in->spec();
        m_fileIdentity = fileIdentity(params.path);
        m_generation = FileRegistry::instance().generationOf(params.path);
        m_channels = channelsOf(m_spec, m_slots);
        m_dataWindow =
            UTIL::Rect(m_spec.x, m_spec.y, m_spec.x + m_spec.width, m_spec.y + m_spec.height);
    }

protected:
    std::string getTypeString() override { return "FileIn"; }
    void computeCacheID(CacheIDStream& s) override {
        // The file's identity as far as a reader can tell without reading it all.
        s << m_params.path << ',' << m_params.subimage << ',' << m_dataWindow << ','
          << m_spec.nchannels << ',' << m_spec.get_string_attribute("DateTime") << ','
          << m_fileIdentity << ',' << m_generation;
    }
    uint64_t computeOutputChannels() override { return m_channels; }
    UTIL::Region computeOutputDataRegion() override { return UTIL::Region(m_dataWindow); }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void preRender() override {
        // Opened now so that a file gone since the graph was built fails
        // the render at once.
        auto reader = openFile(getNameAtTime(), m_params.path, m_params.subimage);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.push_back(std::move(reader));
    }
    void postRender() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.clear();
        m_blocks.clear();
        m_recent.clear();
        m_recentPosition.clear();
    }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        const UTIL::Rect rect =
            UTIL::Rect(out->x1, out->y1, out->x2, out->y2).intersection(m_dataWindow);
        if (rect.isNull()) return;
        const UTIL::Rect grid = blockSize();
        const int64_t bx0 = (rect.xmin - m_dataWindow.xmin) / grid.xmax;
        const int64_t bx1 = (rect.xmax - 1 - m_dataWindow.xmin) / grid.xmax;
        const int64_t by0 = (rect.ymin - m_dataWindow.ymin) / grid.ymax;
        const int64_t by1 = (rect.ymax - 1 - m_dataWindow.ymin) / grid.ymax;
        for (int64_t by = by0; by <= by1; ++by)
            for (int64_t bx = bx0; bx <= bx1; ++bx) {
                ImageBuffer block = this->block(bx, by);
                ImageBuffer_LockScoper lock(block);
                IMGLIB::CopyInto(out, block.getImage());
            }
    }

private:
    // Files are read in blocks: a tiled file's tiles, a scanline file's bands
    // of rows. (xmax, ymax) is the block size.
    UTIL::Rect blockSize() const {
        if (m_spec.tile_width > 0) return UTIL::Rect(0, 0, m_spec.tile_width, m_spec.tile_height);
        // Bands of about kBandBytes: fewer rows for wide images.
        const int64_t rowBytes = std::max<int64_t>(1, m_dataWindow.width()) * m_spec.nchannels * 4;
        return UTIL::Rect(0, 0, m_dataWindow.width(),
                          std::clamp<int64_t>(kBandBytes / rowBytes, 1, kBandRows));
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
    ImageBuffer block(int64_t bx, int64_t by) {
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
            Util::ThreadPool::Blocking blocking;
            std::unique_lock<std::mutex> lock(slot->mutex);
            slot->done.wait(lock, [&] { return slot->ready; });
            if (slot->error) std::rethrow_exception(slot->error);
            return slot->image;
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
    // three rows of tiles' worth (a tile being rendered holds its own handle).
    void evict() {
        const UTIL::Rect size = blockSize();
        const int64_t tileRows = (RenderManager::getGlobalTileHeight() + size.ymax - 1) / size.ymax;
        const int64_t across = (m_dataWindow.width() + size.xmax - 1) / size.xmax;
        const size_t keep = size_t(std::max<int64_t>(8, 3 * (tileRows + 1) * across));
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

    // A reader of the file no other thread is using.
    std::unique_ptr<OIIO::ImageInput> takeReader() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_readers.empty()) {
                auto reader = std::move(m_readers.back());
                m_readers.pop_back();
                return reader;
            }
        }
        return openFile(getNameAtTime(), m_params.path, m_params.subimage);
    }
    void returnReader(std::unique_ptr<OIIO::ImageInput> reader) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.push_back(std::move(reader));
    }

    // Decodes one block into a new image buffer.
    ImageBuffer read(int64_t bx, int64_t by) {
        const UTIL::Rect size = blockSize();
        const UTIL::Rect area =
            UTIL::Rect(m_dataWindow.xmin + bx * size.xmax, m_dataWindow.ymin + by * size.ymax,
                       m_dataWindow.xmin + (bx + 1) * size.xmax,
                       m_dataWindow.ymin + (by + 1) * size.ymax)
                .intersection(m_dataWindow);
        const int n = m_spec.nchannels;
        // The decoded block is held twice for a moment: refuse what the image
        // memory budget could not hold (a damaged header declaring a huge width).
        const uint64_t bytes = uint64_t(area.area()) * uint64_t(n) * sizeof(float);
        const uint64_t budget = RenderManager::GetMaxImageMemory() << 20;
        if (bytes > budget)
            throw RenderTaskRenderingException(
                getNameAtTime(),
                "cannot read '" + m_params.path + "': a block of " + std::to_string(area.width()) +
                    " x " + std::to_string(area.height()) + " pixels needs " +
                    std::to_string(bytes >> 20) + " MB, more than the image memory budget (" +
                    std::to_string(budget >> 20) + " MB)",
                -1);
        std::vector<float> pixels(static_cast<size_t>(area.area()) * n);
        std::unique_ptr<OIIO::ImageInput> file = takeReader();
        const bool ok =
            m_spec.deep ? readDeep(*file, area, pixels.data())
            : m_spec.tile_width > 0
                ? file->read_tiles(m_params.subimage, 0, int(area.xmin), int(area.xmax),
                                   int(area.ymin), int(area.ymax), 0, 1, 0, n,
                                   OIIO::TypeDesc::FLOAT, pixels.data())
                : file->read_scanlines(m_params.subimage, 0, int(area.ymin), int(area.ymax), 0, 0,
                                       n, OIIO::TypeDesc::FLOAT, pixels.data());
        if (!ok)
            throw RenderTaskRenderingException(
                getNameAtTime(), "cannot read '" + m_params.path + "': " + file->geterror(), -1);
        returnReader(std::move(file));
        ImageBuffer image(m_channels, area, "FILEIN." + m_params.path);
        {
            ImageBuffer_LockScoper imageLock(image);
            const IMGLIB::Image* dst = image.getImage();
            const int64_t pixelBytes = IMGLIB::GetPixelBytes(m_channels);
            const float* src = pixels.data();
            for (int64_t y = area.ymin; y < area.ymax; ++y) {
                float* d = IMGLIB::GetPixelAddress(dst, area.xmin, y, pixelBytes);
                for (int64_t x = area.xmin; x < area.xmax; ++x, src += n)
                    for (int bit = 0; bit < 5; ++bit)
                        if (m_channels & (uint64_t(1) << bit)) *d++ = src[m_slots[bit]];
            }
        }
        return image;
    }

    // A block of a deep file, flattened.
    bool readDeep(OIIO::ImageInput& file, const UTIL::Rect& area, float* pixels) {
        OIIO::DeepData deep;
        const bool ok =
            m_spec.tile_width > 0
                ? file.read_native_deep_tiles(m_params.subimage, 0, int(area.xmin), int(area.xmax),
                                              int(area.ymin), int(area.ymax), 0, 1, 0,
                                              m_spec.nchannels, deep)
                : file.read_native_deep_scanlines(m_params.subimage, 0, int(area.ymin),
                                                  int(area.ymax), 0, 0, m_spec.nchannels, deep);
        if (!ok) return false;
        // Scanline reads cover whole rows; the block is all of them here.
        for (int64_t p = 0; p < area.area(); ++p)
            flattenDeepPixel(deep, p, m_spec.nchannels, pixels + p * m_spec.nchannels);
        return true;
    }

    static constexpr int64_t kBandRows = 64;
    static constexpr int64_t kBandBytes = int64_t(4) << 20;

    FileInParams m_params;
    OIIO::ImageSpec m_spec;
    std::string m_fileIdentity;
    uint64_t m_generation = 0;
    uint64_t m_channels = 0;
    int m_slots[IMGLIB::NUM_KNOWN_CHANNELS];
    UTIL::Rect m_dataWindow;
    // m_mutex guards the readers and the blocks; it is taken before a
    // block's own mutex, and never held while a file is read.
    std::mutex m_mutex;
    std::vector<std::unique_ptr<OIIO::ImageInput>> m_readers;  // open, not in use
    std::map<BlockKey, std::shared_ptr<Block>> m_blocks;
    std::list<BlockKey> m_recent;  // most recently used first
    std::map<BlockKey, std::list<BlockKey>::iterator> m_recentPosition;
};

}  // namespace

void useRenderThreadsForFiles() {
    OIIO::attribute("threads", 1);
    OIIO::attribute("exr_threads", -1);
}

TaskPtr createFileInTask(const std::string& name, float time, const FileInParams& params) {
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
    const OIIO::ImageSpec& s = in->spec();
    return FileWindows{
        UTIL::Rect(s.x, s.y, s.x + s.width, s.y + s.height),
        UTIL::Rect(s.full_x, s.full_y, s.full_x + s.full_width, s.full_y + s.full_height)};
}

namespace Private {

void declareFileOperations(OperationList& ops) {
    ops.push_back(
        {"filein",
         "an image file",
         {required("path", ParamType::Path, "plate.exr", "the file"),
          Param{"subimage", ParamType::Int, 0, "which image of a multi-part file"}.atLeast(0)},
         {},
         [](const OperationArgs& a) {
             return createFileInTask(a.node(), 0,
                                     FileInParams{a.path("path"), a.integer("subimage")});
         },
         "Any format OpenImageIO reads (EXR scanline and tiled, TIFF, PNG, JPEG, DPX, ...); "
         "channels R, G, B, A and Z by name, grey (Y) as R = G = B. Deep EXR files are "
         "flattened as `oiiotool --flatten` does: samples composited front to back by Z, Z the "
         "nearest sample's."});
}

}  // namespace Private

}  // namespace TESSERA
