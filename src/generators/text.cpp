// The text generator: lines shaped by HarfBuzz and rasterised by FreeType
// once, when the task is made, into a coverage image that every tile reads.
#include <ft2build.h>
#include FT_FREETYPE_H
#include <hb-ft.h>
#include <hb.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "generatortasks.h"
#include "imglib/pixels.h"
#include "private/operation.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;

// A coverage image: 0 to 1 per pixel over `box`.
struct Coverage {
    UTIL::Rect box;
    std::vector<float> values;
    float at(int64_t x, int64_t y) const {
        return box.contains(x, y) ? values[size_t((y - box.ymin) * box.width() + (x - box.xmin))]
                                  : 0.0f;
    }
};

struct Glyph {
    int64_t x, y;  // top-left pixel
    int width, rows;
    std::vector<unsigned char> gray;
};

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::string line;
    std::istringstream in(text);
    while (std::getline(in, line)) lines.push_back(line);
    if (!text.empty() && text.back() == '\n') lines.emplace_back();
    return lines;
}

Coverage rasterise(const std::string& task, const TextParams& p) {
    FT_Library library = nullptr;
    if (FT_Init_FreeType(&library))
        throw RenderTaskRenderingException(task, "FreeType cannot start", -1);
    std::unique_ptr<FT_LibraryRec_, FT_Error (*)(FT_Library)> libraryOwner(library,
                                                                           FT_Done_FreeType);
    FT_Face face = nullptr;
    if (FT_New_Face(library, p.font.c_str(), 0, &face))
        throw RenderTaskRenderingException(task, "font '" + p.font + "' cannot be opened", -1);
    std::unique_ptr<FT_FaceRec_, FT_Error (*)(FT_Face)> faceOwner(face, FT_Done_Face);
    const unsigned pixels = unsigned(std::lround(p.size));
    if (FT_Set_Pixel_Sizes(face, 0, pixels))
        throw RenderTaskRenderingException(
            task, "font '" + p.font + "' has no size " + std::to_string(pixels), -1);
    hb_font_t* font = hb_ft_font_create_referenced(face);
    std::unique_ptr<hb_font_t, void (*)(hb_font_t*)> fontOwner(font, hb_font_destroy);
    hb_buffer_t* buffer = hb_buffer_create();
    std::unique_ptr<hb_buffer_t, void (*)(hb_buffer_t*)> bufferOwner(buffer, hb_buffer_destroy);

    const double lineHeight = double(face->size->metrics.height) / 64.0 * p.lineSpacing;
    std::vector<Glyph> glyphs;
    UTIL::Rect box;
    const std::vector<std::string> lines = splitLines(p.text);
    for (size_t l = 0; l < lines.size(); ++l) {
        hb_buffer_clear_contents(buffer);
        hb_buffer_add_utf8(buffer, lines[l].c_str(), int(lines[l].size()), 0, int(lines[l].size()));
        hb_buffer_guess_segment_properties(buffer);
        hb_shape(font, buffer, nullptr, 0);
        unsigned count = 0;
        const hb_glyph_info_t* info = hb_buffer_get_glyph_infos(buffer, &count);
        const hb_glyph_position_t* pos = hb_buffer_get_glyph_positions(buffer, &count);
        double width = 0;
        for (unsigned i = 0; i < count; ++i) width += pos[i].x_advance / 64.0;
        double penX = p.position.x - (p.align == TextAlign::Centre  ? width / 2
                                      : p.align == TextAlign::Right ? width
                                                                    : 0.0);
        const double penY = p.position.y + double(l) * lineHeight;
        for (unsigned i = 0; i < count; ++i) {
            if (FT_Load_Glyph(face, info[i].codepoint, FT_LOAD_DEFAULT) ||
                FT_Render_Glyph(face->glyph, FT_RENDER_MODE_NORMAL))
                throw RenderTaskRenderingException(
                    task,
                    "font '" + p.font + "' cannot draw a glyph of line " + std::to_string(l + 1),
                    -1);
            const FT_Bitmap& bitmap = face->glyph->bitmap;
            Glyph g;
            g.x = int64_t(std::lround(penX + pos[i].x_offset / 64.0)) + face->glyph->bitmap_left;
            g.y = int64_t(std::lround(penY - pos[i].y_offset / 64.0)) - face->glyph->bitmap_top;
            g.width = int(bitmap.width);
            g.rows = int(bitmap.rows);
            for (int r = 0; r < g.rows; ++r) {
                const unsigned char* row = bitmap.buffer + r * bitmap.pitch;
                g.gray.insert(g.gray.end(), row, row + g.width);
            }
            if (g.width > 0 && g.rows > 0) {
                box = box.boundingBox(UTIL::Rect(g.x, g.y, g.x + g.width, g.y + g.rows));
                glyphs.push_back(std::move(g));
            }
            penX += pos[i].x_advance / 64.0;
        }
    }
    // Text that would not fit in memory says so instead of trying.
    constexpr int64_t kMaxPixels = int64_t(1) << 26;
    if (box.area() > kMaxPixels)
        throw RenderTaskRenderingException(task,
                                           "the text covers " + std::to_string(box.area()) +
                                               " pixels (at most " + std::to_string(kMaxPixels) +
                                               ")",
                                           -1);
    Coverage coverage{box, std::vector<float>(size_t(box.area()), 0.0f)};
    for (const Glyph& g : glyphs)
        for (int r = 0; r < g.rows; ++r)
            for (int c = 0; c < g.width; ++c) {
                float& v =
                    coverage
                        .values[size_t((g.y + r - box.ymin) * box.width() + (g.x + c - box.xmin))];
                v = std::min(1.0f, v + float(g.gray[size_t(r * g.width + c)]) / 255.0f);
            }
    return coverage;
}

class TextTask : public RenderTask {
public:
    TextTask(const std::string& name, float time, const TextParams& params)
        : RenderTask(name, time), m_params(params), m_coverage(rasterise(name, params)) {}

protected:
    std::string getTypeString() override { return "Text"; }
    void computeCacheID(CacheIDStream& s) override {
        const TextParams& p = m_params;
        s << p.text.size() << ':' << p.text << p.font.size() << ':' << p.font << ' ' << p.size
          << ' ' << p.color << p.position << ' ' << int(p.align) << ' ' << p.lineSpacing;
    }
    uint64_t computeOutputChannels() override { return IMGLIB::CHANNELS_RGBA; }
    UTIL::Region computeOutputDataRegion() override { return UTIL::Region(m_coverage.box); }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        const Color4f& c = m_params.color;
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const float k = m_coverage.at(x, y);
                const float rgba[4] = {c.r * k, c.g * k, c.b * k, c.a * k};
                IMGLIB::SetPixel(out, x, y, rgba);
            }
    }

private:
    TextParams m_params;
    Coverage m_coverage;
};

}  // namespace

const char* defaultFont() {
    return "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
}

namespace Private {
const Choices<TextAlign> kAlignments = {
    {"left", TextAlign::Left}, {"centre", TextAlign::Centre}, {"right", TextAlign::Right}};
}  // namespace Private

TaskPtr createTextTask(const std::string& name, float time, const TextParams& params) {
    if (params.text.empty()) throw InvalidParameterException(name, "text", "the text is empty");
    Private::checkParameters("text", name,
                             {{"size", params.size},
                              {"color", params.color},
                              {"position", params.position},
                              {"align", Private::choiceValue(Private::kAlignments, params.align)},
                              {"lineSpacing", params.lineSpacing}});
    TextParams p = params;
    if (p.font.empty()) p.font = defaultFont();
    return TaskPtr(new TextTask(name, time, p));
}

namespace Private {

void declareTextOperations(OperationList& ops) {
    ops.push_back(
        {"text",
         "lines of text in a font, shaped and anti-aliased",
         {required("text", ParamType::String, "Tessera\nslate 1", "the text; \\n starts a line"),
          {"font", ParamType::Path, "", "a TrueType or OpenType file (default DejaVu Sans)"},
          Param{"size", ParamType::Number, 48, "the font's size in pixels (its em)"}.range(1, 4096),
          Param{"color", ParamType::Color4, kWhite, "the colour of the glyphs"}.anyValue(),
          Param{"position", ParamType::Vec2, json{10, 50},
                "where the first line's baseline starts (or centres, or ends)"}
              .anyValue(),
          choiceParam("align", kAlignments, "left", "each line's position about x"),
          Param{"lineSpacing", ParamType::Number, 1, "line distance, in the font's line heights"}
              .range(0, 100)},
         {},
         [](const OperationArgs& a) {
             TextParams p;
             p.text = a.text("text");
             if (!a.text("font").empty()) p.font = a.path("font");
             p.size = a.number("size");
             p.color = a.color("color");
             p.position = a.vec2("position");
             p.align = a.choice(kAlignments, "align");
             p.lineSpacing = a.number("lineSpacing");
             return createTextTask(a.node(), a.time(), p);
         },
         "HarfBuzz shapes each line and FreeType renders its glyphs with 8-bit anti-aliasing; "
         "the result is the colour times the coverage (premultiplied). Baselines are a line "
         "height apart, as the font defines it. Compare `oiiotool --text`."});
    ops.back().rules = {"text is not empty"};
}

}  // namespace Private
}  // namespace TESSERA
