// The generators: one task class, its pixels from a small table of kinds.
#include <cmath>

#include "expressionmath/noise.h"
#include "generatortasks.h"
#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "imglib/pointops_scalar.h"
#include "private/operation.h"

namespace TESSERA {
namespace {

namespace em = Orrery3::Expressionmath::v3;

enum class Kind {
    Constant,
    Checkerboard,
    ColorBars,
    LinearRamp,
    RadialRamp,
    Lattice,
    HueWheel,
    PerlinNoise,
    RandomNoise,
    FourCorner
};

const char* typeOf(Kind kind) {
    static const char* const names[] = {"Constant",    "Checkerboard", "ColorBars", "LinearRamp",
                                        "RadialRamp",  "Lattice",      "HueWheel",  "PerlinNoise",
                                        "RandomNoise", "FourCorner"};
    return names[static_cast<int>(kind)];
}

// Every generator's parameters; each kind reads the ones it needs.
struct Params {
    Color4f a{0, 0, 0, 0}, b{0, 0, 0, 0}, c{0, 0, 0, 0}, d{0, 0, 0, 0};
    Imath::V2f p{0, 0}, q{0, 0};
    float size = 1.0f, width = 1.0f, gain = 0.5f;
    int octaves = 1;
    uint32_t seed = 0;
};

Color4f mix(const Color4f& a, const Color4f& b, float t) {
    return a + (b - a) * t;
}

float clamp01(float t) {
    return std::fmin(1.0f, std::fmax(0.0f, t));
}

// The colour at pixel centre (x, y) of pixel (ix, iy).
Color4f evaluate(Kind kind, const Params& p, int64_t ix, int64_t iy) {
    const float x = float(ix) + 0.5f, y = float(iy) + 0.5f;
    switch (kind) {
        case Kind::Constant:
            return p.a;
        case Kind::Checkerboard: {
            const int64_t cx = static_cast<int64_t>(std::floor(x / p.size));
            const int64_t cy = static_cast<int64_t>(std::floor(y / p.size));
            return ((cx + cy) & 1) ? p.b : p.a;
        }
        case Kind::ColorBars: {
            static const Color4f bars[8] = {
                {.75f, .75f, .75f, 1}, {.75f, .75f, 0, 1}, {0, .75f, .75f, 1}, {0, .75f, 0, 1},
                {.75f, 0, .75f, 1},    {.75f, 0, 0, 1},    {0, 0, .75f, 1},    {0, 0, 0, 1}};
            const float t = (x - p.p.x) / std::fmax(p.q.x - p.p.x, 1e-6f);
            return bars[std::min(7, std::max(0, static_cast<int>(std::floor(t * 8))))];
        }
        case Kind::LinearRamp: {
            const Imath::V2f d = p.q - p.p;
            const float len2 = d.dot(d);
            const float t = len2 > 0 ? (Imath::V2f(x, y) - p.p).dot(d) / len2 : 0.0f;
            return mix(p.a, p.b, clamp01(t));
        }
        case Kind::RadialRamp: {
            const float r = (Imath::V2f(x, y) - p.p).length();
            return mix(p.a, p.b, p.size > 0 ? clamp01(r / p.size) : 1.0f);
        }
        case Kind::Lattice: {
            auto onLine = [&](float c) {
                const float m = c - std::floor(c / p.size) * p.size;  // [0, spacing)
                return m < p.width;
            };
            return onLine(x) || onLine(y) ? p.a : p.b;
        }
        case Kind::HueWheel: {
            const Imath::V2f d = Imath::V2f(x, y) - p.p;
            const float r = d.length();
            if (r > p.size) return Color4f(0, 0, 0, 0);
            float h = std::atan2(d.y, d.x) / (2.0f * 3.14159265f);
            if (h < 0) h += 1.0f;
            Color4f c(0, 0, 0, 1);
            IMGLIB::scalar::hsvToRgb(h, p.size > 0 ? r / p.size : 0.0f, 1.0f, c.r, c.g, c.b);
            return c;
        }
        case Kind::PerlinNoise: {
            float sum = 0, amplitude = 1, total = 0, frequency = 1.0f / std::fmax(p.size, 1e-6f);
            for (int o = 0; o < p.octaves; ++o) {
                sum += amplitude * em::snoise(x * frequency, y * frequency,
                                              float(p.seed) * 0.618f + float(o) * 17.0f);
                total += amplitude;
                amplitude *= p.gain;
                frequency *= 2.0f;
            }
            return mix(p.a, p.b, clamp01(0.5f + 0.5f * sum / total));
        }
        case Kind::RandomNoise:
            return mix(p.a, p.b, em::randval(ix, iy, p.seed));
        case Kind::FourCorner: {
            // a top left, b top right, c bottom left, d bottom right over
            // the box from p to q, by pixel centres.
            const float u = clamp01((x - p.p.x) / (p.q.x - p.p.x));
            const float v = clamp01((y - p.p.y) / (p.q.y - p.p.y));
            return mix(mix(p.a, p.b, u), mix(p.c, p.d, u), v);
        }
    }
    return Color4f(0, 0, 0, 0);
}

class GeneratorTask : public RenderTask {
public:
    GeneratorTask(const std::string& name, float time, Kind kind, const Params& params,
                  const UTIL::Rect& area)
        : RenderTask(name, time), m_kind(kind), m_params(params), m_area(area) {}

protected:
    std::string getTypeString() override { return typeOf(m_kind); }
    void computeCacheID(CacheIDStream& s) override {
        const Params& p = m_params;
        s << m_area << p.a << p.b << p.c << p.d << p.p << p.q << ' ' << p.size << ' ' << p.width
          << ' ' << p.gain << ' ' << p.octaves << ' ' << p.seed;
    }
    uint64_t computeOutputChannels() override { return IMGLIB::CHANNELS_RGBA; }
    UTIL::Region computeOutputDataRegion() override { return UTIL::Region(m_area); }
    void makeInputFormatRequests() override {}
    void computeRequiredInputRectangles(const UTIL::Rect&, std::vector<UTIL::Rect>&) override {}
    void renderRect(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>&) override {
        if (m_kind == Kind::Constant) {
            const Color4f& c = m_params.a;
            const float rgba[4] = {c.r, c.g, c.b, c.a};
            IMGLIB::Fill(out, rgba);
            return;
        }
        // Where R, G, B and A lie in a pixel (-1: not asked for), found once
        // for the tile rather than for every pixel.
        const uint64_t rgba[4] = {IMGLIB::CHANNEL_R, IMGLIB::CHANNEL_G, IMGLIB::CHANNEL_B,
                                  IMGLIB::CHANNEL_A};
        int at[4];
        for (int c = 0; c < 4; ++c) at[c] = IMGLIB::GetChannelIndex(out->channels, rgba[c]);
        const int64_t floats = IMGLIB::GetPixelBytes(out->channels) / int64_t(sizeof(float));
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* pixel = out->row(y);
            for (int64_t x = out->x1; x < out->x2; ++x, pixel += floats) {
                const Color4f v = evaluate(m_kind, m_params, x, y);
                const float value[4] = {v.r, v.g, v.b, v.a};
                for (int c = 0; c < 4; ++c)
                    if (at[c] >= 0) pixel[at[c]] = value[c];
            }
        }
    }

private:
    Kind m_kind;
    Params m_params;
    UTIL::Rect m_area;
};

TaskPtr make(const std::string& name, float time, Kind kind, const Params& p,
             const UTIL::Rect& area) {
    return TaskPtr(new GeneratorTask(name, time, kind, p, area));
}

}  // namespace

TaskPtr createConstantTask(const std::string& name, float time, const Color4f& color,
                           const UTIL::Rect& area) {
    Private::checkParameters("constant", name, {{"color", color}, {"area", area}});
    Params p;
    p.a = color;
    return make(name, time, Kind::Constant, p, area);
}

TaskPtr createCheckerboardTask(const std::string& name, float time, const Color4f& first,
                               const Color4f& second, float size, const UTIL::Rect& area) {
    Private::checkParameters(
        "checkerboard", name,
        {{"first", first}, {"second", second}, {"size", size}, {"area", area}});
    Params p;
    p.a = first;
    p.b = second;
    p.size = size;
    return make(name, time, Kind::Checkerboard, p, area);
}

TaskPtr createColorBarsTask(const std::string& name, float time, const UTIL::Rect& area) {
    Private::checkParameters("colorbars", name, {{"area", area}});
    Params p;
    p.p = Imath::V2f(float(area.xmin), 0);
    p.q = Imath::V2f(float(area.xmax), 0);
    return make(name, time, Kind::ColorBars, p, area);
}

TaskPtr createLinearRampTask(const std::string& name, float time, const Imath::V2f& start,
                             const Color4f& startColor, const Imath::V2f& end,
                             const Color4f& endColor, const UTIL::Rect& area) {
    Private::checkParameters("linearramp", name,
                             {{"start", start},
                              {"startColor", startColor},
                              {"end", end},
                              {"endColor", endColor},
                              {"area", area}});
    Params p;
    p.p = start;
    p.q = end;
    p.a = startColor;
    p.b = endColor;
    return make(name, time, Kind::LinearRamp, p, area);
}

TaskPtr createRadialRampTask(const std::string& name, float time, const Imath::V2f& centre,
                             float radius, const Color4f& inner, const Color4f& outer,
                             const UTIL::Rect& area) {
    Private::checkParameters("radialramp", name,
                             {{"centre", centre},
                              {"radius", radius},
                              {"inner", inner},
                              {"outer", outer},
                              {"area", area}});
    Params p;
    p.p = centre;
    p.size = radius;
    p.a = inner;
    p.b = outer;
    return make(name, time, Kind::RadialRamp, p, area);
}

TaskPtr createLatticeTask(const std::string& name, float time, const Color4f& lineColor,
                          const Color4f& fillColor, float spacing, float lineWidth,
                          const UTIL::Rect& area) {
    Private::checkParameters("lattice", name,
                             {{"lineColor", lineColor},
                              {"fillColor", fillColor},
                              {"spacing", spacing},
                              {"lineWidth", lineWidth},
                              {"area", area}});
    Params p;
    p.a = lineColor;
    p.b = fillColor;
    p.size = spacing;
    p.width = lineWidth;
    return make(name, time, Kind::Lattice, p, area);
}

TaskPtr createHueWheelTask(const std::string& name, float time, const Imath::V2f& centre,
                           float radius, const UTIL::Rect& area) {
    Private::checkParameters("huewheel", name,
                             {{"centre", centre}, {"radius", radius}, {"area", area}});
    Params p;
    p.p = centre;
    p.size = radius;
    return make(name, time, Kind::HueWheel, p, area);
}

TaskPtr createPerlinNoiseTask(const std::string& name, float time, float scale, int octaves,
                              float gain, uint32_t seed, const Color4f& low, const Color4f& high,
                              const UTIL::Rect& area) {
    // The seed is not checked: every uint32_t is a seed.
    Private::checkParameters("perlinnoise", name,
                             {{"scale", scale},
                              {"octaves", octaves},
                              {"gain", gain},
                              {"low", low},
                              {"high", high},
                              {"area", area}});
    Params p;
    p.size = scale;
    p.octaves = octaves;
    p.gain = gain;
    p.seed = seed;
    p.a = low;
    p.b = high;
    return make(name, time, Kind::PerlinNoise, p, area);
}

TaskPtr createRandomNoiseTask(const std::string& name, float time, uint32_t seed,
                              const Color4f& low, const Color4f& high, const UTIL::Rect& area) {
    Private::checkParameters("randomnoise", name, {{"low", low}, {"high", high}, {"area", area}});
    Params p;
    p.seed = seed;
    p.a = low;
    p.b = high;
    return make(name, time, Kind::RandomNoise, p, area);
}

TaskPtr createFourCornerGradientTask(const std::string& name, float time, const Color4f& topLeft,
                                     const Color4f& topRight, const Color4f& bottomLeft,
                                     const Color4f& bottomRight, const UTIL::Rect& area) {
    Private::checkParameters("fourcorner", name,
                             {{"topLeft", topLeft},
                              {"topRight", topRight},
                              {"bottomLeft", bottomLeft},
                              {"bottomRight", bottomRight},
                              {"area", area}});
    if (area.isNull())
        throw InvalidParameterException(name, "area", "the gradient's area is empty");
    Params p;
    p.a = topLeft, p.b = topRight, p.c = bottomLeft, p.d = bottomRight;
    // The corner pixels' centres carry the corner colours exactly.
    p.p = Imath::V2f(float(area.xmin) + 0.5f, float(area.ymin) + 0.5f);
    p.q = Imath::V2f(float(std::max(area.xmax - 1, area.xmin + 1)) + 0.5f,
                     float(std::max(area.ymax - 1, area.ymin + 1)) + 0.5f);
    return make(name, time, Kind::FourCorner, p, area);
}

namespace Private {

void declareGeneratorOperations(OperationList& ops) {
    ops.push_back(
        {"constant",
         "one colour over an area",
         {Param{"color", ParamType::Color4, kWhite, "the colour filled"}.anyValue(), areaParam()},
         {},
         [](const OperationArgs& a) {
             return createConstantTask(a.node(), a.time(), a.color("color"), a.rect("area"));
         }});
    ops.push_back(
        {"checkerboard",
         "squares of two colours",
         {Param{"first", ParamType::Color4, kWhite,
                "the colour of the square at the area's top-left corner"}
              .anyValue(),
          Param{"second", ParamType::Color4, kBlack, "the colour of the squares beside it"}
              .anyValue(),
          Param{"size", ParamType::Number, 64, "the side of a square, in pixels"}.range(
              1, kMaxMagnitude),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createCheckerboardTask(a.node(), a.time(), a.color("first"), a.color("second"),
                                           a.number("size"), a.rect("area"));
         }});
    ops.push_back({"colorbars", "eight bars at 75%", {areaParam()}, {}, [](const OperationArgs& a) {
                       return createColorBarsTask(a.node(), a.time(), a.rect("area"));
                   }});
    ops.push_back(
        {"linearramp",
         "a ramp between two points",
         {required("start", ParamType::Vec2, {0, 0},
                   "where the ramp starts, in pixels; startColor there and before it")
              .anyValue(),
          Param{"startColor", ParamType::Color4, kBlack, "the colour at start"}.anyValue(),
          required("end", ParamType::Vec2, {60, 45},
                   "where the ramp ends, in pixels; endColor there and beyond it")
              .anyValue(),
          Param{"endColor", ParamType::Color4, kWhite, "the colour at end"}.anyValue(),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createLinearRampTask(a.node(), a.time(), a.vec2("start"), a.color("startColor"),
                                         a.vec2("end"), a.color("endColor"), a.rect("area"));
         }});
    ops.push_back(
        {"radialramp",
         "a ramp out from a centre",
         {required("centre", ParamType::Vec2, {32, 24}, "the centre, in pixels").anyValue(),
          required("radius", ParamType::Number, 30,
                   "the distance from the centre, in pixels, at which outer is reached")
              .atLeast(0),
          Param{"inner", ParamType::Color4, kWhite, "the colour at the centre"}.anyValue(),
          Param{"outer", ParamType::Color4, kBlack, "the colour at radius and beyond"}.anyValue(),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createRadialRampTask(a.node(), a.time(), a.vec2("centre"), a.number("radius"),
                                         a.color("inner"), a.color("outer"), a.rect("area"));
         }});
    ops.push_back(
        {"lattice",
         "grid lines",
         {Param{"lineColor", ParamType::Color4, kWhite, "the colour of the lines"}.anyValue(),
          Param{"fillColor", ParamType::Color4, kBlack, "the colour between the lines"}.anyValue(),
          Param{"spacing", ParamType::Number, 32,
                "the distance from one line to the next, in pixels"}
              .range(1, kMaxMagnitude),
          Param{"lineWidth", ParamType::Number, 1, "the width of a line, in pixels (0: no lines)"}
              .atLeast(0),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createLatticeTask(a.node(), a.time(), a.color("lineColor"),
                                      a.color("fillColor"), a.number("spacing"),
                                      a.number("lineWidth"), a.rect("area"));
         }});
    ops.push_back(
        {"huewheel",
         "hues around a centre",
         {required("centre", ParamType::Vec2, {32, 24}, "the centre, in pixels").anyValue(),
          required("radius", ParamType::Number, 30,
                   "the distance from the centre, in pixels, of full saturation; beyond it the "
                   "hues stay saturated")
              .atLeast(0),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createHueWheelTask(a.node(), a.time(), a.vec2("centre"), a.number("radius"),
                                       a.rect("area"));
         }});
    ops.push_back(
        {"perlinnoise",
         "fractal Perlin noise",
         {Param{"scale", ParamType::Number, 64, "the size of the largest features, in pixels"}
              .range(1e-3, kMaxMagnitude),
          Param{"octaves", ParamType::Int, 4,
                "the count of layers, each of twice the detail of the one before"}
              .range(1, 32),
          Param{"gain", ParamType::Number, 0.5,
                "each octave's amplitude relative to the one before (0.5: the usual 1/f noise)"}
              .range(0, 1),
          Param{"seed", ParamType::Int, 0, "which noise: another seed, another pattern"}.range(
              0, 2147483647),
          Param{"low", ParamType::Color4, kBlack, "the colour where the noise is 0"}.anyValue(),
          Param{"high", ParamType::Color4, kWhite, "the colour where the noise is 1"}.anyValue(),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createPerlinNoiseTask(
                 a.node(), a.time(), a.number("scale"), a.integer("octaves"), a.number("gain"),
                 uint32_t(a.integer("seed")), a.color("low"), a.color("high"), a.rect("area"));
         }});
    ops.push_back(
        {"randomnoise",
         "a random value per pixel",
         {Param{"seed", ParamType::Int, 0, "which noise: another seed, another pattern"}.range(
              0, 2147483647),
          Param{"low", ParamType::Color4, kBlack, "the colour where the noise is 0"}.anyValue(),
          Param{"high", ParamType::Color4, kWhite, "the colour where the noise is 1"}.anyValue(),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createRandomNoiseTask(a.node(), a.time(), uint32_t(a.integer("seed")),
                                          a.color("low"), a.color("high"), a.rect("area"));
         }});
    ops.push_back(
        {"fourcorner",
         "a gradient between four corner colours",
         {Param{"topLeft", ParamType::Color4, kBlack, "the colour of the area's top-left pixel"}
              .anyValue(),
          Param{"topRight", ParamType::Color4, json{1, 0, 0, 1},
                "the colour of its top-right pixel"}
              .anyValue(),
          Param{"bottomLeft", ParamType::Color4, json{0, 1, 0, 1},
                "the colour of its bottom-left pixel"}
              .anyValue(),
          Param{"bottomRight", ParamType::Color4, json{0, 0, 1, 1},
                "the colour of its bottom-right pixel"}
              .anyValue(),
          areaParam()},
         {},
         [](const OperationArgs& a) {
             return createFourCornerGradientTask(a.node(), a.time(), a.color("topLeft"),
                                                 a.color("topRight"), a.color("bottomLeft"),
                                                 a.color("bottomRight"), a.rect("area"));
         },
         "Bilinear between the corner pixels' centres: with u, v from 0 to 1 across "
         "the area, (TL (1 − u) + TR u)(1 − v) + (BL (1 − u) + BR u) v."});
    ops.back().rules = {"area is not empty"};
}

}  // namespace Private

}  // namespace TESSERA
