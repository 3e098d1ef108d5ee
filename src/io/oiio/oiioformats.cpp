// The module that reads and writes every format OpenImageIO knows. It is
// loaded only when such a file is opened (see imagefiles.h) and uses nothing
// of the library but the interfaces there.
#include <OpenImageIO/deepdata.h>
#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "io/imagefiles.h"
#include "io/oiio/lumachroma.h"

namespace TESSERA {
namespace Private {
namespace {

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

// Opens a file with the reader its extension names, and only that one.
// Left to itself, OpenImageIO hands bytes its first reader refuses to every
// other reader it has, and some of those trust what they read and abort the
// process (RLA on bytes that are no RLA); a file that is not what its name
// says is refused with the named reader's reason instead.
std::unique_ptr<OIIO::ImageInput> openNamedFormat(const std::string& path, std::string& error) {
    std::string extension = std::filesystem::path(path).extension().string();
    if (!extension.empty()) extension.erase(0, 1);
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (extension.empty()) {
        error = "its name has no extension saying which image format it holds";
        return nullptr;
    }
    auto in = OIIO::ImageInput::create(extension);
    if (!in) {
        (void)OIIO::geterror();
        error = "no image format reads files ending in '." + extension + "'";
        return nullptr;
    }
    OIIO::ImageSpec spec;
    if (!in->open(path, spec)) {
        const std::string reason = in->geterror();
        error = "it is not a readable " + std::string(in->format_name()) + " file" +
                (reason.empty() ? "" : " (" + reason + ")");
        return nullptr;
    }
    return in;
}

// A header's windows; an edge may lie beyond 32 bits.
UTIL::Rect dataWindowOf(const OIIO::ImageSpec& s) {
    return UTIL::Rect(s.x, s.y, int64_t(s.x) + s.width, int64_t(s.y) + s.height);
}
UTIL::Rect displayWindowOf(const OIIO::ImageSpec& s) {
    return UTIL::Rect(s.full_x, s.full_y, int64_t(s.full_x) + s.full_width,
                      int64_t(s.full_y) + s.full_height);
}

class OiioReader final : public ImageReader {
public:
    OiioReader(std::unique_ptr<OIIO::ImageInput> in, int subimage, int level)
        : m_in(std::move(in)), m_subimage(subimage), m_level(level) {
        const OIIO::ImageSpec& s = m_in->spec();
        m_info.dataWindow = dataWindowOf(s);
        m_info.displayWindow = displayWindowOf(s);
        for (int c = 0; c < s.nchannels; ++c) m_info.channelNames.push_back(s.channel_name(c));
        m_info.tileWidth = s.tile_width;
        m_info.tileHeight = s.tile_height;
        m_info.deep = s.deep;
        m_info.description = s.get_string_attribute("DateTime");
        m_in->threads(1);  // decoding runs on the render's threads
    }
    const ImageFileInfo& info() const override { return m_info; }

    // Reads every channel as floats, then places them as `layout` says (it
    // asks for halves only of EXR files, which are not read here). Scanline
    // files are read 16 MB of floats at a time, into buffers of ours: a
    // damaged header can declare rows millions of pixels wide (an 85-byte
    // BMP made the library allocate 4.6 GB for its 256-row conversion).
    std::string read(const UTIL::Rect& area, const PixelLayout& layout, uint8_t* first,
                     int64_t lineBytes) override {
        const int n = int(m_info.channelNames.size());
        const int64_t rowFloats = area.width() * n;
        const int64_t groupRows =
            m_info.deep || m_info.tileWidth > 0
                ? area.height()
                : std::clamp<int64_t>(kGroupFloats / std::max<int64_t>(rowFloats, 1), 1,
                                      area.height());
        std::vector<float> pixels(size_t(groupRows * rowFloats));
        for (int64_t y = area.ymin; y < area.ymax; y += groupRows) {
            const UTIL::Rect group(area.xmin, y, area.xmax, std::min(y + groupRows, area.ymax));
            if (!readFloats(group, n, pixels.data())) {
                const std::string error = m_in->geterror();
                return error.empty() ? "the file is damaged" : error;
            }
            const float* src = pixels.data();
            for (int64_t row = group.ymin; row < group.ymax; ++row) {
                uint8_t* dst = first + (row - area.ymin) * lineBytes;
                for (int64_t x = 0; x < area.width(); ++x, src += n)
                    for (int c = 0; c < n; ++c)
                        if (layout.offset[size_t(c)] >= 0)
                            std::memcpy(dst + x * layout.pixelBytes + layout.offset[size_t(c)],
                                        src + c, sizeof(float));
            }
        }
        return std::string();
    }

private:
    static constexpr int64_t kGroupFloats = int64_t(4) << 20;  // 16 MB

    // `area` of every channel as floats into `pixels`, as the file is laid
    // out: deep pixels flattened, tiles, or whole rows.
    bool readFloats(const UTIL::Rect& area, int n, float* pixels) {
        const int x0 = int(area.xmin), x1 = int(area.xmax), y0 = int(area.ymin),
                  y1 = int(area.ymax);
        if (m_info.deep) {
            OIIO::DeepData deep;
            const bool ok =
                m_info.tileWidth > 0
                    ? m_in->read_native_deep_tiles(m_subimage, m_level, x0, x1, y0, y1, 0, 1, 0, n,
                                                   deep)
                    : m_in->read_native_deep_scanlines(m_subimage, m_level, y0, y1, 0, 0, n, deep);
            // Scanline reads cover whole rows: the area is all of them here.
            if (ok)
                for (int64_t p = 0; p < int64_t(x1 - x0) * (y1 - y0); ++p)
                    flattenDeepPixel(deep, p, n, pixels + p * n);
            return ok;
        }
        if (m_info.tileWidth > 0)
            return m_in->read_tiles(m_subimage, m_level, x0, x1, y0, y1, 0, 1, 0, n,
                                    OIIO::TypeDesc::FLOAT, pixels);
        // The library's converting read allocates 256 rows whatever is asked
        // for: rows are read as they are stored and converted here.
        const OIIO::ImageSpec& spec = m_in->spec();
        if (!spec.channelformats.empty())
            return m_in->read_scanlines(m_subimage, m_level, y0, y1, 0, 0, n, OIIO::TypeDesc::FLOAT,
                                        pixels);
        const size_t values = size_t(area.area()) * size_t(n);
        m_stored.resize(values * spec.format.size());
        return m_in->read_native_scanlines(m_subimage, m_level, y0, y1, 0, 0, n, m_stored.data()) &&
               OIIO::convert_pixel_values(spec.format, m_stored.data(), OIIO::TypeDesc::FLOAT,
                                          pixels, int(values));
    }

    std::unique_ptr<OIIO::ImageInput> m_in;
    std::vector<unsigned char> m_stored;  // rows as the file stores them
    int m_subimage, m_level;
    ImageFileInfo m_info;
};

// What a DPX header declares, against the file's size: OpenImageIO's
// reader allocates (and clears) whatever the header says the user data and
// the image take. Empty when plausible.
std::string implausibleDpx(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    unsigned char header[780] = {};
    if (!file.read(reinterpret_cast<char*>(header), sizeof header)) return {};
    const bool little = std::memcmp(header, "XPDS", 4) == 0;
    if (!little && std::memcmp(header, "SDPX", 4) != 0) return {};
    auto u32 = [&](size_t at) {
        const unsigned char* b = header + at;
        return little ? uint64_t(b[0]) | uint64_t(b[1]) << 8 | uint64_t(b[2]) << 16 |
                            uint64_t(b[3]) << 24
                      : uint64_t(b[3]) | uint64_t(b[2]) << 8 | uint64_t(b[1]) << 16 |
                            uint64_t(b[0]) << 24;
    };
    file.seekg(0, std::ios::end);
    const uint64_t size = uint64_t(file.tellg());
    const uint64_t userData = u32(32), pixels = u32(772) * u32(776);
    // Pixels of at least one bit each, run-length coded at most 64 to 1.
    if (userData > size || pixels / 512 > size)
        return "its DPX header declares more than its " + std::to_string(size) +
               " bytes could hold";
    return {};
}

std::unique_ptr<ImageReader> openReader(const std::string& path, int subimage, int level,
                                        std::string& error) {
    error = implausibleDpx(path);
    if (!error.empty()) return nullptr;
    if (level == 0)
        if (auto lumaChroma = openLumaChromaReader(path, subimage, error)) return lumaChroma;
    if (!error.empty()) return nullptr;
    auto in = openNamedFormat(path, error);
    if (!in) return nullptr;
    if (subimage != 0 && !in->seek_subimage(subimage, 0)) {
        error = "no subimage " + std::to_string(subimage);
        return nullptr;
    }
    if (level != 0 && !in->seek_subimage(subimage, level)) {
        int levels = 1;
        while (in->seek_subimage(subimage, levels)) ++levels;
        error = "it has no mip level " + std::to_string(level) + " (it has " +
                std::to_string(levels) + (levels == 1 ? " level)" : " levels)");
        return nullptr;
    }
    return std::make_unique<OiioReader>(std::move(in), subimage, level);
}

// A file that notices every failed write (a full disk, a file size limit)
// and from then on takes writes without doing them: the image library never
// sees the failure (some writers wait for ever after one), and the writer
// reports it in the system's words.
class CheckedFile : public OIIO::Filesystem::IOFile {
public:
    explicit CheckedFile(const std::string& path) : IOFile(path, Write) {
        if (!m_file) fail();
    }
    size_t write(const void* buf, size_t size) override {
        if (!m_failed && IOFile::write(buf, size) != size) fail();
        return size;
    }
    size_t pwrite(const void* buf, size_t size, int64_t offset) override {
        if (!m_failed && IOFile::pwrite(buf, size, offset) != size) fail();
        return size;
    }
    void close() override {
        if (m_file && !m_failed && (std::fflush(m_file) != 0 || std::ferror(m_file))) fail();
        IOFile::close();
    }
    // Empty when every byte reached the file.
    const std::string& failure() const { return m_failure; }

private:
    void fail() {
        m_failed = true;
        m_failure = std::strerror(errno ? errno : EIO);
    }
    bool m_failed = false;
    std::string m_failure;
};

OIIO::TypeDesc typeOf(const ImageWriterSpec& spec) {
    std::string name = spec.dataType;
    if (name.empty()) {
        const std::string ext = std::filesystem::path(spec.formatOf).extension().string();
        name = ext == ".exr" ? "half" : (ext == ".tif" || ext == ".tiff") ? "uint16" : "uint8";
    }
    if (name == "float") return OIIO::TypeDesc::FLOAT;
    if (name == "uint8") return OIIO::TypeDesc::UINT8;
    if (name == "uint16") return OIIO::TypeDesc::UINT16;
    return OIIO::TypeDesc::HALF;
}

// The source's header attributes that say what the pictures are (not how
// the file lays them out), then the output's own.
void carryAttributes(const ImageWriterSpec& s, OIIO::ImageSpec& spec) {
    if (!s.attributesFrom.empty())
        if (std::string ignored; auto in = openNamedFormat(s.attributesFrom, ignored)) {
            for (const OIIO::ParamValue& p : in->spec().extra_attribs) {
                const std::string name = p.name().string();
                if (name.rfind("oiio:", 0) == 0 || name.rfind("openexr:", 0) == 0 ||
                    name == "compression" || name == "tiles" || name == "multiView" ||
                    name == "view" || name == "name" || name == "type")
                    continue;
                spec.extra_attribs.push_back(p);
            }
            in->close();
        }
    if (!s.views.empty()) {
        std::vector<const char*> views;
        for (const std::string& v : s.views) views.push_back(v.c_str());
        spec.attribute("multiView", OIIO::TypeDesc(OIIO::TypeDesc::STRING, int(views.size())),
                       views.data());
    }
    for (const auto& [name, text] : s.textAttributes) spec.attribute(name, text);
    // OpenImageIO stamps files without a date with the time of writing:
    // the same render would then give other bytes every second.
    if (!spec.find_attribute("DateTime")) spec.attribute("DateTime", "");
    for (const auto& [name, number] : s.numberAttributes) {
        if (number == std::floor(number) && std::fabs(number) < 2147483647.0)
            spec.attribute(name, int(number));
        else
            spec.attribute(name, float(number));
    }
}

class OiioWriter final : public ImageWriter {
public:
    std::string open(const ImageWriterSpec& s) {
        OIIO::ImageSpec spec(int(s.rect.width()), int(s.rect.height()), int(s.channelNames.size()),
                             typeOf(s));
        spec.x = int(s.rect.xmin);
        spec.y = int(s.rect.ymin);
        const UTIL::Rect& display = s.displayWindow.isNull() ? s.rect : s.displayWindow;
        spec.full_x = int(display.xmin);
        spec.full_y = int(display.ymin);
        spec.full_width = int(display.width());
        spec.full_height = int(display.height());
        spec.channelnames = s.channelNames;
        const auto alpha = std::find(s.channelNames.begin(), s.channelNames.end(), "A");
        spec.alpha_channel =
            alpha == s.channelNames.end() ? -1 : int(alpha - s.channelNames.begin());
        carryAttributes(s, spec);
        spec.attribute("compression", s.compression);
        m_out = OIIO::ImageOutput::create(s.formatOf);
        if (!m_out) return OIIO::geterror();
        if (const std::string lacking = channelsLacking(s.channelNames); !lacking.empty())
            return lacking;
        if (m_out->supports("ioproxy")) {
            m_file = std::make_unique<CheckedFile>(s.path);
            if (!m_file->failure().empty()) return m_file->failure();
            m_out->set_ioproxy(m_file.get());
        }
        m_out->threads(1);  // encoding runs on the render's threads
        if (!m_out->open(s.path, spec)) return m_out->geterror();
        return std::string();
    }
    std::string writeRows(int64_t ymin, int64_t ymax, const float* pixels, int64_t pixelBytes,
                          int64_t lineBytes) override {
        return check(m_out->write_scanlines(int(ymin), int(ymax), 0, OIIO::TypeDesc::FLOAT, pixels,
                                            pixelBytes, lineBytes));
    }
    std::string close() override {
        std::string error = m_out ? check(m_out->close()) : std::string();
        m_out.reset();
        if (m_file) {
            m_file->close();
            if (error.empty()) error = m_file->failure();
            m_file.reset();
        }
        return error;
    }

private:
    // Why the format cannot hold these channels, or empty when it can: only
    // EXR keeps channels by name; the others hold R, G, B and (when the
    // format has alpha) A, or one grey channel.
    std::string channelsLacking(const std::vector<std::string>& names) const {
        const std::string format = m_out->format_name();
        if (format == "openexr") return std::string();
        const bool alpha = m_out->supports("alpha");
        for (const std::string& name : names)
            if (name != "R" && name != "G" && name != "B" && (name != "A" || !alpha))
                return "the " + format + " format cannot hold channel " + name + " (it holds " +
                       (alpha ? "R, G, B and A" : "R, G and B") + "; EXR holds every channel)";
        return std::string();
    }

    // The file's failure first: the library's own message says less.
    std::string check(bool ok) {
        if (m_file && !m_file->failure().empty()) return m_file->failure();
        return ok ? std::string() : m_out->geterror();
    }
    std::unique_ptr<CheckedFile> m_file;
    std::unique_ptr<OIIO::ImageOutput> m_out;
};

std::unique_ptr<ImageWriter> openWriter(const ImageWriterSpec& spec, std::string& error) {
    auto writer = std::make_unique<OiioWriter>();
    error = writer->open(spec);
    if (error.empty()) return writer;
    writer->close();
    return nullptr;
}

void useRenderThreads() {
    OIIO::attribute("threads", 1);
    OIIO::attribute("exr_threads", -1);
}

std::string storageOf(const OIIO::ImageSpec& spec) {
    return std::string(spec.deep ? "deep " : "") + (spec.tile_width ? "tiled" : "scanline");
}

// Not among a file's attributes: what the description shows apart, and
// OpenImageIO's own (its guesses, such as "oiio:ColorSpace").
bool describedApart(const std::string& name) {
    return name == "compression" || name == "name" || name == "view" || name.rfind("oiio:", 0) == 0;
}

FileDescription describe(const std::string& path, std::string& error) {
    FileDescription file;
    auto in = openNamedFormat(path, error);
    if (!in) return file;
    file.format = in->format_name();
    for (int subimage = 0; in->seek_subimage(subimage, 0); ++subimage) {
        const OIIO::ImageSpec spec = in->spec();
        FilePartDescription part;
        part.name = spec.get_string_attribute("oiio:subimagename");
        part.view = spec.get_string_attribute("view");
        part.storage = storageOf(spec);
        part.tileWidth = spec.tile_width;
        part.tileHeight = spec.tile_height;
        while (in->seek_subimage(subimage, part.levels)) ++part.levels;
        part.compression = spec.get_string_attribute("compression");
        part.dataWindow = dataWindowOf(spec);
        part.displayWindow = displayWindowOf(spec);
        for (int c = 0; c < spec.nchannels; ++c)
            part.channels.push_back({spec.channel_name(c), spec.channelformat(c).c_str()});
        for (const OIIO::ParamValue& p : spec.extra_attribs)
            if (!describedApart(p.name().string()))
                part.attributes.emplace_back(p.name().string(),
                                             OIIO::ImageSpec::metadata_val(p, true));
        file.parts.push_back(std::move(part));
    }
    return file;
}

const ImageFormatModule kModule = {&openReader, &openWriter, &useRenderThreads, &describe};

}  // namespace
}  // namespace Private
}  // namespace TESSERA

extern "C" __attribute__((visibility("default"))) const TESSERA::Private::ImageFormatModule*
tessera_image_format_module() {
    return &TESSERA::Private::kModule;
}
