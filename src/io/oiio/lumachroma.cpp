// Luminance-chroma EXR files (Y with subsampled RY and BY, as some cameras
// and older pipelines write them) read as RGB(A) through OpenEXR's C++
// library, which reconstructs the colour as the format defines it.
#include "io/oiio/lumachroma.h"

#include <OpenEXR/ImfArray.h>
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfRgbaFile.h>
#include <OpenEXR/ImfTestFile.h>

#include <cstring>
#include <exception>

namespace TESSERA {
namespace Private {
namespace {

class LumaChromaReader final : public ImageReader {
public:
    explicit LumaChromaReader(const std::string& path) : m_file(path.c_str()) {
        const Imath::Box2i data = m_file.dataWindow(), display = m_file.displayWindow();
        m_info.dataWindow =
            UTIL::Rect(data.min.x, data.min.y, int64_t(data.max.x) + 1, int64_t(data.max.y) + 1);
        m_info.displayWindow = UTIL::Rect(display.min.x, display.min.y, int64_t(display.max.x) + 1,
                                          int64_t(display.max.y) + 1);
        m_info.channelNames = {"R", "G", "B"};
        if (m_file.channels() & Imf::WRITE_A) m_info.channelNames.push_back("A");
    }
    const ImageFileInfo& info() const override { return m_info; }

    std::string read(const UTIL::Rect& area, const PixelLayout& layout, uint8_t* first,
                     int64_t lineBytes) override {
        try {
            const UTIL::Rect& dw = m_info.dataWindow;
            const int64_t width = dw.width();
            Imf::Array2D<Imf::Rgba> rows(area.height(), width);
            m_file.setFrameBuffer(&rows[0][0] - area.ymin * width - dw.xmin, 1, size_t(width));
            m_file.readPixels(int(area.ymin), int(area.ymax - 1));
            for (int64_t y = 0; y < area.height(); ++y)
                for (int64_t x = 0; x < area.width(); ++x) {
                    const Imf::Rgba& p = rows[y][area.xmin - dw.xmin + x];
                    const float values[4] = {p.r, p.g, p.b, p.a};
                    uint8_t* pixel = first + y * lineBytes + x * layout.pixelBytes;
                    for (size_t c = 0; c < m_info.channelNames.size(); ++c)
                        if (layout.offset[c] >= 0)
                            std::memcpy(pixel + layout.offset[c], &values[c], sizeof(float));
                }
            return std::string();
        } catch (const std::exception& e) {
            return e.what();
        }
    }

private:
    Imf::RgbaInputFile m_file;
    ImageFileInfo m_info;
};

}  // namespace

std::unique_ptr<ImageReader> openLumaChromaReader(const std::string& path, int subimage,
                                                  std::string& error) {
    try {
        bool tiled = false, deep = false, multiPart = false;
        if (!Imf::isOpenExrFile(path.c_str(), tiled, deep, multiPart) || deep || multiPart ||
            subimage != 0)
            return nullptr;
        Imf::RgbaInputFile probe(path.c_str());
        const Imf::ChannelList& channels = probe.header().channels();
        if (!channels.findChannel("RY") || !channels.findChannel("BY") ||
            !channels.findChannel("Y"))
            return nullptr;
        return std::make_unique<LumaChromaReader>(path);
    } catch (const std::exception& e) {
        error = e.what();
        return nullptr;
    }
}

}  // namespace Private
}  // namespace TESSERA
