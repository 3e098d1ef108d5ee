// EXR files in scanlines (and compressions the core library cannot write:
// DWA, B44 of float channels) through OpenEXR's C++ library, in this
// library: writing them through the format module would load OpenImageIO
// and the hundreds of libraries it brings (over 100 MB) for a format this
// library knows.
#include <OpenEXR/ImfChannelList.h>
#include <OpenEXR/ImfDoubleAttribute.h>
#include <OpenEXR/ImfFloatAttribute.h>
#include <OpenEXR/ImfFrameBuffer.h>
#include <OpenEXR/ImfHeader.h>
#include <OpenEXR/ImfInputFile.h>
#include <OpenEXR/ImfIntAttribute.h>
#include <OpenEXR/ImfMultiView.h>
#include <OpenEXR/ImfOutputFile.h>
#include <OpenEXR/ImfStandardAttributes.h>
#include <OpenEXR/ImfStringAttribute.h>

#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "imglib/rowops.h"
#include "io/exrattributes.h"
#include "io/exrcompression.h"
#include "io/imagefiles.h"

namespace TESSERA {
namespace Private {

namespace {

static_assert(int(Imf::ZIP_COMPRESSION) == int(EXR_COMPRESSION_ZIP) &&
                  int(Imf::DWAB_COMPRESSION) == int(EXR_COMPRESSION_DWAB) &&
                  int(Imf::NO_COMPRESSION) == int(EXR_COMPRESSION_NONE),
              "OpenEXR's two libraries number compressions alike");

Imath::Box2i box(const UTIL::Rect& r) {
    return Imath::Box2i({int(r.xmin), int(r.ymin)}, {int(r.xmax - 1), int(r.ymax - 1)});
}

void setCompression(Imf::Header& header, const ExrCompression& given) {
    header.compression() = static_cast<Imf::Compression>(given.type);
    header.zipCompressionLevel() = given.zipLevel;
    header.dwaCompressionLevel() = given.dwaLevel;
}

// The source's attributes that say what the pictures are, not how the file
// lays them out; a file that is not EXR, or is gone, gives none.
void carryAttributes(Imf::Header& header, const std::string& from) {
    if (from.empty()) return;
    try {
        Imf::InputFile source(from.c_str());
        for (auto it = source.header().begin(); it != source.header().end(); ++it)
            if (!isExrLayoutAttribute(it.name())) header.insert(it.name(), it.attribute());
    } catch (const std::exception&) {
    }
}

// A number is an integer when it is whole, else a float; one the source
// had with another type keeps that type.
void setNumber(Imf::Header& header, const std::string& name, double value) {
    const auto had = header.find(name.c_str());
    const std::string type = had != header.end() ? had.attribute().typeName() : "";
    if (type == "double")
        header.insert(name, Imf::DoubleAttribute(value));
    else if (type != "float" && value == std::floor(value) &&
             std::fabs(value) <= double(std::numeric_limits<int32_t>::max()))
        header.insert(name, Imf::IntAttribute(int(value)));
    else
        header.insert(name, Imf::FloatAttribute(float(value)));
}

class ExrScanlineWriter final : public ImageWriter {
public:
    explicit ExrScanlineWriter(const ImageWriterSpec& s)
        : m_spec(s), m_type(s.dataType == "float" ? Imf::FLOAT : Imf::HALF) {}

    std::string open() {
        const UTIL::Rect display =
            m_spec.displayWindow.isNull() ? m_spec.rect : m_spec.displayWindow;
        Imf::Header header(box(display), box(m_spec.rect));
        setCompression(header, parseExrCompression(m_spec.formatOf, m_spec.compression));
        for (const std::string& name : m_spec.channelNames)
            header.channels().insert(name, Imf::Channel(m_type));
        carryAttributes(header, m_spec.attributesFrom);
        if (!m_spec.views.empty()) Imf::addMultiView(header, m_spec.views);
        for (const auto& [name, text] : m_spec.textAttributes)
            header.insert(name, Imf::StringAttribute(text));
        for (const auto& [name, value] : m_spec.numberAttributes) setNumber(header, name, value);
        try {
            m_file = std::make_unique<Imf::OutputFile>(m_spec.path.c_str(), header);
        } catch (const std::exception& e) {
            return e.what();
        }
        return std::string();
    }

    std::string writeRows(int64_t ymin, int64_t ymax, const float* pixels, int64_t pixelBytes,
                          int64_t lineBytes) override {
        // The library takes a frame buffer of the file's own type: half
        // files are given the band as halves.
        const char* first = reinterpret_cast<const char*>(pixels);
        size_t element = sizeof(float);
        if (m_type == Imf::HALF) {
            const size_t values =
                size_t(pixelBytes / int64_t(sizeof(float))) * size_t(m_spec.rect.width());
            m_halves.resize(values * size_t(ymax - ymin));
            for (int64_t y = ymin; y < ymax; ++y)
                IMGLIB::RowFloatToHalf(
                    m_halves.data() + size_t(y - ymin) * values,
                    reinterpret_cast<const float*>(first + (y - ymin) * lineBytes), values);
            first = reinterpret_cast<const char*>(m_halves.data());
            element = sizeof(uint16_t);
            pixelBytes /= 2;
            lineBytes = pixelBytes * m_spec.rect.width();
        }
        // The slices are addressed by file coordinates: from the band's
        // first row and the data window's left edge.
        char* origin = const_cast<char*>(first) - ymin * lineBytes - m_spec.rect.xmin * pixelBytes;
        Imf::FrameBuffer buffer;
        for (size_t c = 0; c < m_spec.channelNames.size(); ++c)
            buffer.insert(
                m_spec.channelNames[c],
                Imf::Slice(m_type, origin + c * element, size_t(pixelBytes), size_t(lineBytes)));
        try {
            m_file->setFrameBuffer(buffer);
            m_file->writePixels(int(ymax - ymin));
        } catch (const std::exception& e) {
            return e.what();
        }
        return std::string();
    }

    std::string close() override {
        try {
            m_file.reset();  // writes the chunk offsets
        } catch (const std::exception& e) {
            return e.what();
        }
        return std::string();
    }

private:
    const ImageWriterSpec m_spec;
    const Imf::PixelType m_type;
    std::unique_ptr<Imf::OutputFile> m_file;
    std::vector<uint16_t> m_halves;  // a band as halves, for half files
};

}  // namespace

std::unique_ptr<ImageWriter> openExrScanlineWriter(const ImageWriterSpec& spec,
                                                   std::string& error) {
    auto writer = std::make_unique<ExrScanlineWriter>(spec);
    error = writer->open();
    return error.empty() ? std::move(writer) : nullptr;
}

}  // namespace Private
}  // namespace TESSERA
