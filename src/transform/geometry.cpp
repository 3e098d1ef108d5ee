// Exact geometry as one task: every output pixel inside the task's frame
// reads the input pixel an integer map gives (an axis swap, then a mirror
// and an offset on each axis, then optionally a clamp or mirror into the
// input's box), or a fill colour where that pixel lies outside the source
// area. Outside the frame is the task's background.
#include <algorithm>
#include <cstring>
#include <limits>

#include "geometrytasks.h"
#include "imglib/channels.h"
#include "imglib/extend.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "private/operation.h"
#include "private/pixelview.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;
using UTIL::Rect;

// source = scale * c + offset, scale being 1 or -1.
struct AxisMap {
    int64_t scale = 1, offset = 0;
    int64_t operator()(int64_t c) const { return scale * c + offset; }
    // The coordinates c whose source lies in [lo, hi).
    std::pair<int64_t, int64_t> inverse(int64_t lo, int64_t hi) const {
        return scale > 0 ? std::make_pair(lo - offset, hi - offset)
                         : std::make_pair(offset - hi + 1, offset - lo + 1);
    }
};

struct PixelMap {
    bool swap = false;  // output x drives the source's y
    AxisMap x, y;       // source x from output x (or y when swapped), source y likewise
};

// What each operation makes of the map, from the input's bounding box.
enum class Kind { Crop, DataWindow, Reposition, Orient, Border };

struct Settings {
    Kind kind = Kind::Crop;
    Rect rect;               // crop, data window
    bool flag = false;       // crop: black outside; data window: shrink
    int64_t dx = 0, dy = 0;  // reposition
    Orientation orientation = Orientation::Flip;
    int64_t margins[4] = {};  // border: left, top, right, bottom
    IMGLIB::ExtendMethod extend = IMGLIB::EXTEND_BACKGROUND;
    Color4f color{0, 0, 0, 0};
};

const char* typeOf(const Settings& s) {
    switch (s.kind) {
        case Kind::Crop:
            return "Crop";
        case Kind::DataWindow:
            return "DataWindow";
        case Kind::Reposition:
            return "Reposition";
        case Kind::Orient:
            return "Orient";
        case Kind::Border:
            return "Border";
    }
    return "Geometry";
}

class GeometryTask : public RenderTask, public Private::ForwardsInput {
public:
    GeometryTask(const std::string& name, float time, const Settings& settings, TaskPtr input)
        : RenderTask(name, time), m_settings(settings) {
        if (!input)
            throw RenderTaskRenderingException(
                name, std::string(typeOf(settings)) + " requires an input", -1);
        registerInputTask(std::move(input));
    }

protected:
    std::string getTypeString() override { return typeOf(m_settings); }

    void computeCacheID(CacheIDStream& s) override {
        const Settings& p = m_settings;
        s << p.rect.xmin << ',' << p.rect.ymin << ',' << p.rect.xmax << ',' << p.rect.ymax << ','
          << p.flag << ',' << p.dx << ',' << p.dy << ',' << int(p.orientation) << ','
          << p.margins[0] << ',' << p.margins[1] << ',' << p.margins[2] << ',' << p.margins[3]
          << ',' << int(p.extend) << ',' << p.color;
    }

    uint64_t computeOutputChannels() override {
        prepare();
        return getDefinedInputChannels(0);
    }

    Color4f computeBackgroundColor() override {
        const bool black = m_settings.kind == Kind::Crop && m_settings.flag;
        return black ? Color4f(0, 0, 0, 0) : getInputBackgroundColor(0);
    }

    UTIL::Region computeOutputDataRegion() override {
        const UTIL::Region& in = getDefinedInputDataRegion(0);
        UTIL::Region out;
        switch (m_settings.kind) {
            case Kind::Crop:
            case Kind::DataWindow: {
                // Where the input's background differs from ours, the whole
                // rectangle shows it: all of it is data.
                const bool whole = (m_settings.kind == Kind::DataWindow && !m_settings.flag) ||
                                   getInputBackgroundColor(0) != getBackgroundColor();
                if (whole) {
                    out.add(m_settings.rect);
                } else {
                    for (const Rect& r : in.rects()) out.add(r.intersection(m_settings.rect));
                }
                break;
            }
            case Kind::Border:
                out.add(m_frame);
                break;
            default:
                for (const Rect& r : in.rects()) out.add(outputRectOf(r));
                break;
        }
        return out;
    }

    void makeInputFormatRequests() override {
        addInputRequest(0, getDefinedInputChannels(0) & getRequiredOutputChannels());
    }

    // As compositors do: a crop's format is its rectangle, a border grows
    // the format by its margins, moves and orientations carry it along.
    Rect computeFormat() override {
        const Rect& in = getInputFormat(0);
        const Settings& p = m_settings;
        switch (p.kind) {
            case Kind::Crop:
                return p.rect;
            case Kind::Reposition:
            case Kind::Orient:
                return outputRectOf(in);
            case Kind::Border:
                return in.isNull() ? in
                                   : Rect(in.xmin - p.margins[0], in.ymin - p.margins[1],
                                          in.xmax + p.margins[2], in.ymax + p.margins[3]);
            default:
                return in;
        }
    }

    void computeRequiredInputRectangles(const Rect& outputRect,
                                        std::vector<Rect>& inputRects) override {
        inputRects.assign(1, sourceRectOf(outputRect.intersection(m_frame)));
    }

    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

    // Moves and crops hand on the input's tiles: a whole-tile reposition or
    // a crop inside the rectangle copies no pixel.
    bool forwardsInput(const Rect& rect, int64_t& dx, int64_t& dy) const override {
        switch (m_settings.kind) {
            case Kind::Reposition:
                dx = m_settings.dx, dy = m_settings.dy;
                return true;
            case Kind::Crop:
            case Kind::DataWindow:
                dx = dy = 0;
                return m_source.contains(rect);
            default:
                return false;
        }
    }

private:
    // The map, frame and source area for the input's box.
    void prepare() {
        const Rect box = getDefinedInputDataRegion(0).boundingBox();
        m_box = box;
        m_frame = Rect::infinite();
        m_source = Rect::infinite();
        m_map = PixelMap{};
        const Settings& p = m_settings;
        switch (p.kind) {
            case Kind::Crop:
            case Kind::DataWindow:
                m_source = p.rect;
                break;
            case Kind::Reposition:
                m_map.x.offset = -p.dx;
                m_map.y.offset = -p.dy;
                break;
            case Kind::Border:
                m_frame = box.isNull() ? box
                                       : Rect(box.xmin - p.margins[0], box.ymin - p.margins[1],
                                              box.xmax + p.margins[2], box.ymax + p.margins[3]);
                if (p.extend == IMGLIB::EXTEND_BACKGROUND) m_source = box;
                break;
            case Kind::Orient:
                if (!box.isNull()) orient(box);
                break;
        }
    }

    void orient(const Rect& b) {
        const int64_t x1 = b.xmin, y1 = b.ymin, w = b.width(), h = b.height();
        switch (m_settings.orientation) {
            case Orientation::Flop:
                m_map.x = {-1, x1 + b.xmax - 1};
                break;
            case Orientation::Flip:
                m_map.y = {-1, y1 + b.ymax - 1};
                break;
            case Orientation::Rotate180:
                m_map.x = {-1, x1 + b.xmax - 1};
                m_map.y = {-1, y1 + b.ymax - 1};
                break;
            case Orientation::Transpose:
                m_map = {true, {1, x1 - y1}, {1, y1 - x1}};
                break;
            case Orientation::Rotate90:  // out(x, y) = in(x1 + y - y1, y1 + h - 1 - (x - x1))
                m_map = {true, {1, x1 - y1}, {-1, y1 + h - 1 + x1}};
                break;
            case Orientation::Rotate270:  // out(x, y) = in(x1 + w - 1 - (y - y1), y1 + x - x1)
                m_map = {true, {-1, x1 + w - 1 + y1}, {1, y1 - x1}};
                break;
        }
    }

    // The output pixels whose (unextended) source lies in r.
    Rect outputRectOf(const Rect& r) const {
        if (r.isNull()) return r;
        const auto [ax, bx] = m_map.x.inverse(r.xmin, r.xmax);
        const auto [ay, by] = m_map.y.inverse(r.ymin, r.ymax);
        return m_map.swap ? Rect(ay, ax, by, bx) : Rect(ax, ay, bx, by);
    }

    // Source coordinate on one axis after the extension into the box.
    int64_t extended(int64_t c, int64_t lo, int64_t hi) const {
        if (m_settings.kind != Kind::Border || m_settings.extend == IMGLIB::EXTEND_BACKGROUND)
            return c;
        return m_settings.extend == IMGLIB::EXTEND_CLAMP ? IMGLIB::ClampCoordinate(c, lo, hi)
                                                         : IMGLIB::MirrorCoordinate(c, lo, hi);
    }

    // The input pixels the output pixels of r read.
    Rect sourceRectOf(const Rect& r) const {
        if (r.isNull()) return Rect();
        const bool extending =
            m_settings.kind == Kind::Border && m_settings.extend != IMGLIB::EXTEND_BACKGROUND;
        // Output x drives source x (or source y when swapped).
        auto range = [&](int64_t lo, int64_t hi, const AxisMap& map, int64_t boxLo, int64_t boxHi) {
            if (!extending) {
                const int64_t a = map(lo), b = map(hi - 1);
                return std::make_pair(std::min(a, b), std::max(a, b) + 1);
            }
            int64_t mn = std::numeric_limits<int64_t>::max(),
                    mx = std::numeric_limits<int64_t>::min();
            for (int64_t c = lo; c < hi; ++c) {
                const int64_t s = extended(map(c), boxLo, boxHi);
                mn = std::min(mn, s), mx = std::max(mx, s);
            }
            return std::make_pair(mn, mx + 1);
        };
        const Rect& b = m_box;
        const auto sx = m_map.swap ? range(r.ymin, r.ymax, m_map.x, b.xmin, b.xmax)
                                   : range(r.xmin, r.xmax, m_map.x, b.xmin, b.xmax);
        const auto sy = m_map.swap ? range(r.xmin, r.xmax, m_map.y, b.ymin, b.ymax)
                                   : range(r.ymin, r.ymax, m_map.y, b.ymin, b.ymax);
        return Rect(sx.first, sy.first, sx.second, sy.second).intersection(m_source);
    }

    Settings m_settings;
    PixelMap m_map;
    Rect m_box, m_frame, m_source;
};

void GeometryTask::renderRect(const IMGLIB::Image* out,
                              const std::vector<const IMGLIB::Image*>& inputs) {
    const IMGLIB::Image* in = inputs.empty() ? nullptr : inputs[0];
    const int outStride = IMGLIB::GetChannelCount(out->channels);
    const Color4f bg = getBackgroundColor(), inBg = getInputBackgroundColor(0);
    const Color4f fill = m_settings.kind == Kind::Border ? m_settings.color : bg;
    // Per output channel: its index in the input pixel, and the value that
    // stands for it where there is no pixel to read.
    std::vector<int> from(size_t(outStride), -1);
    std::vector<float> outside(size_t(outStride), 0.0f), filled(outside), inputBg(outside);
    int index = 0;
    for (int bit = 0; bit < 64; ++bit) {
        const uint64_t ch = uint64_t(1) << bit;
        if (!(out->channels & ch)) continue;
        if (in) from[size_t(index)] = IMGLIB::GetChannelIndex(in->channels, ch);
        if (bit < 4) {
            outside[size_t(index)] = bg[bit];
            filled[size_t(index)] = fill[bit];
            inputBg[size_t(index)] = inBg[bit];
        }
        ++index;
    }
    const int inStride = in ? IMGLIB::GetChannelCount(in->channels) : 0;
    const Rect inRect = in ? Rect(in->x1, in->y1, in->x2, in->y2) : Rect();
    const bool extending =
        m_settings.kind == Kind::Border && m_settings.extend != IMGLIB::EXTEND_BACKGROUND;
    // One pixel by the map, wherever it lands.
    const auto pixel = [&](int64_t x, int64_t y, float* dst) {
        const float* value = outside.data();
        const float* src = nullptr;
        if (m_frame.contains(x, y)) {
            int64_t sx = m_map.x(m_map.swap ? y : x), sy = m_map.y(m_map.swap ? x : y);
            if (extending) {
                sx = extended(sx, m_box.xmin, m_box.xmax);
                sy = extended(sy, m_box.ymin, m_box.ymax);
            }
            if (!m_source.contains(sx, sy))
                value = filled.data();
            else if (inRect.contains(sx, sy))
                src = IMGLIB::GetPixelAddress(in, sx, sy, 4 * inStride);
            else
                value = inputBg.data();
        }
        for (int c = 0; c < outStride; ++c)
            dst[c] = src ? (from[size_t(c)] >= 0 ? src[from[size_t(c)]] : 0.0f) : value[c];
    };
    // Rows that read one input row straight or mirrored copy the readable
    // span whole.
    const bool rowWise = !m_map.swap && !extending && in && in->channels == out->channels;
    const Rect readable = inRect.intersection(m_source);
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* row = IMGLIB::GetPixelAddress(out, out->x1, y, 4 * outStride);
        int64_t spanStart = out->x2, spanEnd = out->x2;
        const int64_t sy = m_map.y(y);
        if (rowWise && m_frame.contains(m_frame.xmin, y) && sy >= readable.ymin &&
            sy < readable.ymax) {
            const auto [lo, hi] = m_map.x.inverse(readable.xmin, readable.xmax);
            spanStart = std::clamp(std::max(lo, m_frame.xmin), out->x1, out->x2);
            spanEnd = std::clamp(std::min(hi, m_frame.xmax), spanStart, out->x2);
        }
        for (int64_t x = out->x1; x < spanStart; ++x) pixel(x, y, row + (x - out->x1) * outStride);
        if (spanEnd > spanStart) {
            float* dst = row + (spanStart - out->x1) * outStride;
            const size_t n = size_t(spanEnd - spanStart);
            if (m_map.x.scale > 0) {
                std::memcpy(dst, IMGLIB::GetPixelAddress(in, m_map.x(spanStart), sy, 4 * inStride),
                            n * size_t(outStride) * sizeof(float));
            } else {
                const float* src =
                    IMGLIB::GetPixelAddress(in, m_map.x(spanStart), sy, 4 * inStride);
                for (size_t i = 0; i < n; ++i, dst += outStride, src -= inStride)
                    std::memcpy(dst, src, size_t(outStride) * sizeof(float));
            }
        }
        for (int64_t x = spanEnd; x < out->x2; ++x) pixel(x, y, row + (x - out->x1) * outStride);
    }
}

TaskPtr make(const std::string& name, float time, const Settings& s, TaskPtr input) {
    return TaskPtr(new GeometryTask(name, time, s, std::move(input)));
}

// Crop and data window keep a rectangle of pixels: an empty one is refused.
void checkRect(const char* operation, const std::string& name, const Rect& rect) {
    Private::checkParameters(operation, name, {{"rect", rect}});
    if (rect.isNull())
        throw InvalidParameterException(name, "rect",
                                        "value " + nlohmann::json(rect).dump() + " is empty");
}

}  // namespace

namespace Private {
const Choices<Orientation> kOrientations = {
    {"flip", Orientation::Flip},           {"flop", Orientation::Flop},
    {"transpose", Orientation::Transpose}, {"rotate90", Orientation::Rotate90},
    {"rotate180", Orientation::Rotate180}, {"rotate270", Orientation::Rotate270}};
}  // namespace Private

TaskPtr createCropTask(const std::string& name, float time, const UTIL::Rect& rect,
                       bool blackOutside, TaskPtr input) {
    checkRect("crop", name, rect);
    Settings s;
    s.kind = Kind::Crop;
    s.rect = rect;
    s.flag = blackOutside;
    return make(name, time, s, std::move(input));
}

TaskPtr createDataWindowTask(const std::string& name, float time, const UTIL::Rect& rect,
                             bool shrink, TaskPtr input) {
    checkRect("datawindow", name, rect);
    Settings s;
    s.kind = Kind::DataWindow;
    s.rect = rect;
    s.flag = shrink;
    return make(name, time, s, std::move(input));
}

TaskPtr createRepositionTask(const std::string& name, float time, int64_t dx, int64_t dy,
                             TaskPtr input) {
    Private::checkParameters("reposition", name, {{"offset", {dx, dy}}});
    if (dx == 0 && dy == 0) return input;
    Settings s;
    s.kind = Kind::Reposition;
    s.dx = dx;
    s.dy = dy;
    return make(name, time, s, std::move(input));
}

TaskPtr createOrientTask(const std::string& name, float time, Orientation orientation,
                         TaskPtr input) {
    Private::checkParameters(
        "orient", name,
        {{"orientation", Private::choiceValue(Private::kOrientations, orientation)}});
    Settings s;
    s.kind = Kind::Orient;
    s.orientation = orientation;
    return make(name, time, s, std::move(input));
}

TaskPtr createBorderTask(const std::string& name, float time, int64_t left, int64_t top,
                         int64_t right, int64_t bottom, IMGLIB::ExtendMethod method,
                         const Imath::Color4<float>& color, TaskPtr input) {
    Private::checkParameters("border", name,
                             {{"left", left},
                              {"top", top},
                              {"right", right},
                              {"bottom", bottom},
                              {"extend", Private::choiceValue(Private::extendChoices(), method)},
                              {"color", color}});
    Settings s;
    s.kind = Kind::Border;
    s.margins[0] = left, s.margins[1] = top, s.margins[2] = right, s.margins[3] = bottom;
    s.extend = method;
    s.color = color;
    return make(name, time, s, std::move(input));
}

namespace Private {

void declareGeometryOperations(OperationList& ops) {
    const double limit = double(UTIL::Rect::INFINITE_EXTENT);
    ops.push_back({"crop",
                   "the input inside a rectangle",
                   {required("rect", ParamType::Rect, {4, 2, 60, 40}, "the area kept").anyValue(),
                    {"blackOutside", ParamType::Bool, true,
                     "transparent black outside (else the input's background colour)"}},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createCropTask(a.node(), a.time(), a.rect("rect"),
                                             a.flag("blackOutside"), a.input("input"));
                   },
                   "As `oiiotool --crop`: the data window becomes the rectangle's part of the "
                   "input's; the pixels inside are the input's."});
    ops.back().rules = {"rect is not empty"};
    ops.push_back({"datawindow",
                   "set or shrink the defined region",
                   {required("rect", ParamType::Rect, {4, 2, 60, 40}, "the new region").anyValue(),
                    {"shrink", ParamType::Bool, false,
                     "keep only the part of the input's region inside rect"}},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createDataWindowTask(a.node(), a.time(), a.rect("rect"),
                                                   a.flag("shrink"), a.input("input"));
                   },
                   "Pixels inside the region are the input's (its background colour where it has "
                   "no data); outside, the input's background colour."});
    ops.back().rules = {"rect is not empty"};
    ops.push_back({"reposition",
                   "the input moved by whole pixels",
                   {Param{"offset", ParamType::Vec2, json{0, 0}, "pixels right and down"}
                        .range(-limit, limit)
                        .withExample({7, -5})},
                   {"input"},
                   [](const OperationArgs& a) {
                       const json& o = a.value("offset");
                       if (!o[0].is_number_integer() || !o[1].is_number_integer())
                           a.fail("offset", "needs whole pixels, got " + o.dump());
                       return createRepositionTask(a.node(), a.time(), o[0].get<int64_t>(),
                                                   o[1].get<int64_t>(), a.input("input"));
                   },
                   "out(x, y) = in(x − dx, y − dy); exact."});
    ops.back().rules = {"offset is whole pixels"};
    ops.push_back(
        {"orient",
         "flip, flop, transpose or rotate by quarter turns",
         {choiceParam("orientation", kOrientations, "flip", "rotations are clockwise as viewed")},
         {"input"},
         [](const OperationArgs& a) {
             return createOrientTask(a.node(), a.time(), a.choice(kOrientations, "orientation"),
                                     a.input("input"));
         },
         "Within the input's bounding box, whose top-left corner stays: as `oiiotool "
         "--flip`, `--flop`, `--transpose`, `--rotate90`, `--rotate180`, "
         "`--rotate270`. Exact: no resampling."});
    ops.push_back(
        {"border",
         "the frame grown by margins of a colour, or of the clamped or mirrored edge",
         {Param{"left", ParamType::Int, 0, "pixels added on the left"}.range(0, limit).withExample(
              6),
          Param{"top", ParamType::Int, 0, "pixels added at the top"}.range(0, limit),
          Param{"right", ParamType::Int, 0, "pixels added on the right"}.range(0, limit),
          Param{"bottom", ParamType::Int, 0, "pixels added at the bottom"}
              .range(0, limit)
              .withExample(3),
          extendParam("extend", "background", "background: the colour; clamp; mirror")
              .withExample("mirror"),
          Param{"color", ParamType::Color4, kClear, "the margins' colour"}.anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             return createBorderTask(a.node(), a.time(), a.integer("left"), a.integer("top"),
                                     a.integer("right"), a.integer("bottom"), a.extend("extend"),
                                     a.color("color"), a.input("input"));
         },
         "The new data window is the input's bounding box grown by the margins. Clamp repeats "
         "the edge pixel; mirror reflects about the edge, the edge pixel repeated."});
}

}  // namespace Private
}  // namespace TESSERA
