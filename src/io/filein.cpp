// Reading images with OpenImageIO, region by region.
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "exceptions.h"
#include "fileio.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"

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
    // Unnamed single-channel images are grey: R, G and B.
    if (!mask && spec.nchannels >= 1) {
        for (int bit = 0; bit < 3; ++bit) slots[bit] = std::min(bit, spec.nchannels - 1);
        mask = IMGLIB::CHANNELS_RGB;
        if (spec.nchannels == 4) slots[3] = 3, mask |= IMGLIB::CHANNEL_A;
    }
    return mask;
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
        m_channels = channelsOf(m_spec, m_slots);
        m_dataWindow =
            UTIL::Rect(m_spec.x, m_spec.y, m_spec.x + m_spec.width, m_spec.y + m_spec.height);
    }

protected:
    std::string getTypeString() override { return "FileIn"; }
    void computeCacheID(CacheIDStream& s) override {
        // The file's identity as far as a reader can tell without reading it all.
        s << m_params.path << ',' << m_params.subimage << ',' << m_dataWindow << ','
          << m_spec.nchannels << ',' << m_spec.get_string_attribute("DateTime");
    }
    uint64_t computeOutputChannels() override { return m_channels; }
    UTIL::Region computeOutputDataRegion() override { return UTIL::Region(m_dataWindow); }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void preRender() override {
        m_file = openFile(getNameAtTime(), m_params.path, m_params.subimage);
    }
    void postRender() override {
        std::lock_guard<std::mutex> lock(m_fileMutex);
        m_file.reset();
    }
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        const UTIL::Rect rect =
            UTIL::Rect(out->x1, out->y1, out->x2, out->y2).intersection(m_dataWindow);
        if (rect.isNull()) return;
        // Tiled files read whole tiles; scanline files whole rows.
        UTIL::Rect read = rect;
        if (m_spec.tile_width > 0) {
            const int64_t tw = m_spec.tile_width, th = m_spec.tile_height;
            auto down = [](int64_t v, int64_t o, int64_t t) { return o + (v - o) / t * t; };
            read.xmin = down(rect.xmin, m_spec.x, tw);
            read.ymin = down(rect.ymin, m_spec.y, th);
            read.xmax =
                std::min<int64_t>(down(rect.xmax - 1, m_spec.x, tw) + tw, m_dataWindow.xmax);
            read.ymax =
                std::min<int64_t>(down(rect.ymax - 1, m_spec.y, th) + th, m_dataWindow.ymax);
        } else {
            read.xmin = m_dataWindow.xmin;
            read.xmax = m_dataWindow.xmax;
        }
        const int n = m_spec.nchannels;
        std::vector<float> pixels(static_cast<size_t>(read.area()) * n);
        bool ok;
        {
            std::lock_guard<std::mutex> lock(m_fileMutex);
            if (!m_file) m_file = openFile(getNameAtTime(), m_params.path, m_params.subimage);
            ok = m_spec.tile_width > 0
                     ? m_file->read_tiles(m_params.subimage, 0, int(read.xmin), int(read.xmax),
                                          int(read.ymin), int(read.ymax), 0, 1, 0, n,
                                          OIIO::TypeDesc::FLOAT, pixels.data())
                     : m_file->read_scanlines(m_params.subimage, 0, int(read.ymin), int(read.ymax),
                                              0, 0, n, OIIO::TypeDesc::FLOAT, pixels.data());
            if (!ok)
                throw RenderTaskRenderingException(
                    getNameAtTime(), "cannot read '" + m_params.path + "': " + m_file->geterror(),
                    -1);
        }
        const int64_t pixelBytes = IMGLIB::GetPixelBytes(out->channels);
        for (int64_t y = rect.ymin; y < rect.ymax; ++y) {
            const float* src =
                pixels.data() + ((y - read.ymin) * read.width() + (rect.xmin - read.xmin)) * n;
            float* dst = IMGLIB::GetPixelAddress(out, rect.xmin, y, pixelBytes);
            for (int64_t x = rect.xmin; x < rect.xmax; ++x, src += n)
                for (int bit = 0; bit < IMGLIB::NUM_KNOWN_CHANNELS; ++bit)
                    if (out->channels & (uint64_t(1) << bit))
                        *dst++ = (bit < 5 && m_slots[bit] >= 0) ? src[m_slots[bit]] : 0.0f;
        }
    }

private:
    FileInParams m_params;
    OIIO::ImageSpec m_spec;
    uint64_t m_channels = 0;
    int m_slots[IMGLIB::NUM_KNOWN_CHANNELS];
    UTIL::Rect m_dataWindow;
    std::mutex m_fileMutex;  // an ImageInput reads one region at a time
    std::unique_ptr<OIIO::ImageInput> m_file;
};

}  // namespace

TaskPtr createFileInTask(const std::string& name, float time, const FileInParams& params) {
    return TaskPtr(new FileInTask(name, time, params));
}

FileWindows readFileWindows(const std::string& path) {
    auto in = openFile("readFileWindows", path, 0);
    const OIIO::ImageSpec& s = in->spec();
    return FileWindows{
        UTIL::Rect(s.x, s.y, s.x + s.width, s.y + s.height),
        UTIL::Rect(s.full_x, s.full_y, s.full_x + s.full_width, s.full_y + s.full_height)};
}

}  // namespace TESSERA
