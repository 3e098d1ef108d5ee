// Warps: each output pixel reads the input, bilinearly, at a point a map
// gives it: an ST map image, or a lens model.
#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/operation.h"
#include "transformtasks.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;
using UTIL::Rect;

// Bilinear reads of an input image whose pixels outside `box` (the input's
// data) are the background colour. Only pixels inside both box and the
// image are ever read, so a tile's result does not depend on how much
// more of the input it was given.
class Sampler {
public:
    Sampler(const IMGLIB::Image* in, const Rect& box, const Color4f& bg, uint64_t channels)
        : m_in(in),
          m_box(in ? box.intersection(Rect(in->x1, in->y1, in->x2, in->y2)) : Rect()),
          m_stride(in ? IMGLIB::GetChannelCount(in->channels) : 0) {
        for (int bit = 0; bit < 64; ++bit) {
            const uint64_t ch = uint64_t(1) << bit;
            if (!(channels & ch)) continue;
            m_from.push_back(in ? IMGLIB::GetChannelIndex(in->channels, ch) : -1);
            m_bg.push_back(bit < 4 ? bg[bit] : 0.0f);
        }
    }
    // The input at continuous point (x, y) (pixel centres at +0.5).
    void sample(double x, double y, float* out) const {
        const double fx = x - 0.5, fy = y - 0.5;
        const int64_t x0 = int64_t(std::floor(fx)), y0 = int64_t(std::floor(fy));
        const float tx = float(fx - double(x0)), ty = float(fy - double(y0));
        const float w[4] = {(1 - tx) * (1 - ty), tx * (1 - ty), (1 - tx) * ty, tx * ty};
        const int64_t px[4] = {x0, x0 + 1, x0, x0 + 1}, py[4] = {y0, y0, y0 + 1, y0 + 1};
        for (size_t c = 0; c < m_from.size(); ++c) out[c] = 0.0f;
        for (int k = 0; k < 4; ++k) {
            const bool inside = m_box.contains(px[k], py[k]);
            const float* p =
                inside ? IMGLIB::GetPixelAddress(m_in, px[k], py[k], 4 * m_stride) : nullptr;
            for (size_t c = 0; c < m_from.size(); ++c)
                out[c] += w[k] * (p ? (m_from[c] >= 0 ? p[m_from[c]] : 0.0f) : m_bg[c]);
        }
    }
    // The input pixels a bilinear read at (x, y) may touch.
    static Rect footprint(double x, double y) {
        const int64_t x0 = int64_t(std::floor(x - 0.5)), y0 = int64_t(std::floor(y - 0.5));
        return Rect(x0, y0, x0 + 2, y0 + 2);
    }

private:
    const IMGLIB::Image* m_in;
    Rect m_box;
    int m_stride;
    std::vector<int> m_from;
    std::vector<float> m_bg;
};

// ---- Lens distortion ----

// Brown-Conrady about a centre, in units of half the format's width.
struct Lens {
    LensDistortionParams p;
    double cx = 0, cy = 0, unit = 1;

    // Undistorted normalised point to distorted.
    void distort(double x, double y, double& dx, double& dy) const {
        const double r2 = x * x + y * y;
        const double radial = 1 + r2 * (p.k1 + r2 * (p.k2 + r2 * p.k3));
        dx = x * radial + 2 * p.p1 * x * y + p.p2 * (r2 + 2 * x * x);
        dy = y * radial + p.p1 * (r2 + 2 * y * y) + 2 * p.p2 * x * y;
    }
    // Its inverse by Newton's method on the 2x2 Jacobian (a numeric one,
    // which is plenty for these smooth polynomials).
    void undistort(double x, double y, double& ux, double& uy) const {
        ux = x, uy = y;
        for (int i = 0; i < 20; ++i) {
            double fx, fy;
            distort(ux, uy, fx, fy);
            const double ex = fx - x, ey = fy - y;
            if (std::fabs(ex) + std::fabs(ey) < 1e-12) break;
            const double h = 1e-6;
            double ax, ay, bx, by;
            distort(ux + h, uy, ax, ay);
            distort(ux, uy + h, bx, by);
            const double j11 = (ax - fx) / h, j21 = (ay - fy) / h, j12 = (bx - fx) / h,
                         j22 = (by - fy) / h;
            const double det = j11 * j22 - j12 * j21;
            if (std::fabs(det) < 1e-12) break;
            ux -= (j22 * ex - j12 * ey) / det;
            uy -= (-j21 * ex + j11 * ey) / det;
        }
    }
    // Where output pixel centre (x, y) reads the input, in pixels.
    void source(double x, double y, double& sx, double& sy) const {
        const double nx = (x - cx) / unit, ny = (y - cy) / unit;
        double mx, my;
        if (p.undistort)
            distort(nx, ny, mx, my);  // the input is the distorted plate
        else
            undistort(nx, ny, mx, my);
        sx = cx + mx * unit, sy = cy + my * unit;
    }
    // Where input point (x, y) lands in the output.
    void destination(double x, double y, double& dx, double& dy) const {
        const double nx = (x - cx) / unit, ny = (y - cy) / unit;
        double mx, my;
        if (p.undistort)
            undistort(nx, ny, mx, my);
        else
            distort(nx, ny, mx, my);
        dx = cx + mx * unit, dy = cy + my * unit;
    }
};

class LensDistortionTask : public RenderTask {
public:
    LensDistortionTask(const std::string& name, float time, const LensDistortionParams& p,
                       TaskPtr input)
        : RenderTask(name, time) {
        m_lens.p = p;
        registerInputTask(std::move(input));
    }

protected:
    std::string getTypeString() override {
        return m_lens.p.undistort ? "LensUndistort" : "LensDistort";
    }
    void computeCacheID(CacheIDStream& s) override {
        const LensDistortionParams& p = m_lens.p;
        s << p.k1 << ',' << p.k2 << ',' << p.k3 << ',' << p.p1 << ',' << p.p2 << ',' << p.centre
          << ',' << p.format.xmin << ',' << p.format.ymin << ',' << p.format.xmax << ','
          << p.format.ymax << ',' << p.undistort;
    }
    uint64_t computeOutputChannels() override {
        m_box = getDefinedInputDataRegion(0).boundingBox();
        const Rect& f = m_lens.p.format.isNull() ? m_box : m_lens.p.format;
        m_lens.cx = double(f.xmin + f.xmax) / 2 + m_lens.p.centre.x;
        m_lens.cy = double(f.ymin + f.ymax) / 2 + m_lens.p.centre.y;
        m_lens.unit = std::max<double>(1, double(f.width()) / 2);
        return getDefinedInputChannels(0);
    }
    UTIL::Region computeOutputDataRegion() override {
        // The input box's edge, mapped: the overscan the output needs.
        if (m_box.isNull()) return UTIL::Region();
        double x1 = 1e300, y1 = 1e300, x2 = -1e300, y2 = -1e300;
        const auto add = [&](double x, double y) {
            double dx, dy;
            m_lens.destination(x, y, dx, dy);
            x1 = std::min(x1, dx), y1 = std::min(y1, dy), x2 = std::max(x2, dx),
            y2 = std::max(y2, dy);
        };
        const double w = double(m_box.width()), h = double(m_box.height());
        constexpr int kSteps = 256;
        for (int i = 0; i <= kSteps; ++i) {
            const double t = double(i) / kSteps;
            add(double(m_box.xmin) + t * w, double(m_box.ymin));
            add(double(m_box.xmin) + t * w, double(m_box.ymax));
            add(double(m_box.xmin), double(m_box.ymin) + t * h);
            add(double(m_box.xmax), double(m_box.ymin) + t * h);
        }
        const double limit = double(UTIL::Rect::INFINITE_EXTENT);
        const auto bound = [&](double v) { return int64_t(std::clamp(v, -limit, limit)); };
        return UTIL::Region(Rect(bound(std::floor(x1)) - 1, bound(std::floor(y1)) - 1,
                                 bound(std::ceil(x2)) + 1, bound(std::ceil(y2)) + 1));
    }
    void makeInputFormatRequests() override {
        addInputRequest(0, getDefinedInputChannels(0) & getRequiredOutputChannels());
    }
    void computeRequiredInputRectangles(const Rect& outputRect,
                                        std::vector<Rect>& inputRects) override {
        // Every pixel's footprint: exact, whatever the distortion.
        Rect need;
        for (int64_t y = outputRect.ymin; y < outputRect.ymax; ++y)
            for (int64_t x = outputRect.xmin; x < outputRect.xmax; ++x) {
                double sx, sy;
                m_lens.source(double(x) + 0.5, double(y) + 0.5, sx, sy);
                if (std::isfinite(sx) && std::isfinite(sy) && std::fabs(sx) < 1e7 &&
                    std::fabs(sy) < 1e7)
                    need = need.boundingBox(Sampler::footprint(sx, sy));
            }
        inputRects.assign(1, need.intersection(m_box));
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        const Sampler sampler(inputs.empty() ? nullptr : inputs[0], m_box,
                              getInputBackgroundColor(0), out->channels);
        const int n = IMGLIB::GetChannelCount(out->channels);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* dst = IMGLIB::GetPixelAddress(out, out->x1, y, 4 * n);
            for (int64_t x = out->x1; x < out->x2; ++x, dst += n) {
                double sx, sy;
                m_lens.source(double(x) + 0.5, double(y) + 0.5, sx, sy);
                if (!(std::fabs(sx) < 1e7 && std::fabs(sy) < 1e7)) sx = sy = -1e7;
                sampler.sample(sx, sy, dst);
            }
        }
    }

private:
    Lens m_lens;
    Rect m_box;
};

// ---- ST maps ----

class STMapTask : public RenderTask {
public:
    STMapTask(const std::string& name, float time, uint64_t s, uint64_t t, TaskPtr input,
              TaskPtr map)
        : RenderTask(name, time), m_s(s), m_t(t) {
        registerInputTask(std::move(input));
        registerInputTask(std::move(map));
    }

protected:
    std::string getTypeString() override { return "STMap"; }
    void computeCacheID(CacheIDStream& s) override { s << m_s << ',' << m_t; }
    uint64_t computeOutputChannels() override {
        m_box = getDefinedInputDataRegion(0).boundingBox();
        return getDefinedInputChannels(0);
    }
    Color4f computeBackgroundColor() override { return Color4f(0, 0, 0, 0); }
    UTIL::Region computeOutputDataRegion() override { return getDefinedInputDataRegion(1); }
    void makeInputFormatRequests() override {
        addInputRequest(0, getDefinedInputChannels(0) & getRequiredOutputChannels());
        addInputRequest(1, (m_s | m_t) & getDefinedInputChannels(1));
    }
    void computeRequiredInputRectangles(const Rect& outputRect,
                                        std::vector<Rect>& inputRects) override {
        // Where a pixel reads is known only once the map is rendered: the
        // whole input, then.
        inputRects = {m_box, outputRect};
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        const IMGLIB::Image* map = inputs.size() > 1 ? inputs[1] : nullptr;
        const Sampler sampler(inputs.empty() ? nullptr : inputs[0], m_box,
                              getInputBackgroundColor(0), out->channels);
        const int n = IMGLIB::GetChannelCount(out->channels);
        const int mapStride = map ? IMGLIB::GetChannelCount(map->channels) : 0;
        const int si = map ? IMGLIB::GetChannelIndex(map->channels, m_s) : -1;
        const int ti = map ? IMGLIB::GetChannelIndex(map->channels, m_t) : -1;
        const double w = double(m_box.width()), h = double(m_box.height());
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* dst = IMGLIB::GetPixelAddress(out, out->x1, y, 4 * n);
            for (int64_t x = out->x1; x < out->x2; ++x, dst += n) {
                const bool inMap =
                    map && x >= map->x1 && x < map->x2 && y >= map->y1 && y < map->y2;
                const float* m =
                    inMap ? IMGLIB::GetPixelAddress(map, x, y, 4 * mapStride) : nullptr;
                const double s = m && si >= 0 ? m[si] : 0.0, t = m && ti >= 0 ? m[ti] : 0.0;
                // s and t run 0 to 1 across the input's box, t upwards as
                // ST maps are written.
                double sx = double(m_box.xmin) + s * w, sy = double(m_box.ymax) - t * h;
                if (!(std::fabs(sx) < 1e7 && std::fabs(sy) < 1e7)) sx = sy = -1e7;
                sampler.sample(sx, sy, dst);
            }
        }
    }

private:
    uint64_t m_s, m_t;
    Rect m_box;
};

}  // namespace

TaskPtr createLensDistortionTask(const std::string& name, float time,
                                 const LensDistortionParams& params, TaskPtr input) {
    Private::checkParameters("lensdistort", name,
                             {{"k1", params.k1},
                              {"k2", params.k2},
                              {"k3", params.k3},
                              {"p1", params.p1},
                              {"p2", params.p2},
                              {"centre", params.centre},
                              {"format", params.format}});
    if (!input) throw RenderTaskRenderingException(name, "lens distortion needs an input", -1);
    return TaskPtr(new LensDistortionTask(name, time, params, std::move(input)));
}

TaskPtr createSTMapTask(const std::string& name, float time, uint64_t sChannel, uint64_t tChannel,
                        TaskPtr input, TaskPtr map) {
    if (!input || !map) throw RenderTaskRenderingException(name, "an ST map needs two inputs", -1);
    Private::checkParameters("stmap", name,
                             {{"s", Private::choiceValue(Private::channelChoices(), sChannel)},
                              {"t", Private::choiceValue(Private::channelChoices(), tChannel)}});
    uint64_t channels = 0;
    map->getOutputDescription(&channels, nullptr);
    for (const auto& [label, ch] : {std::make_pair("s", sChannel), std::make_pair("t", tChannel)})
        if (!(channels & ch))
            throw std::invalid_argument(name + ": the map (" + map->getName() + ") has no " +
                                        IMGLIB::GetChannelMaskName(ch) + " channel for " + label +
                                        " (it has " + IMGLIB::GetChannelMaskName(channels) + ")");
    return TaskPtr(new STMapTask(name, time, sChannel, tChannel, std::move(input), std::move(map)));
}

namespace Private {

void declareWarpOperations(OperationList& ops) {
    ops.push_back(
        {"lensdistort",
         "radial and tangential lens distortion, applied or removed",
         {Param{"k1", ParamType::Number, 0.05, "radial, r²"}.range(-10, 10),
          Param{"k2", ParamType::Number, 0, "radial, r⁴"}.range(-10, 10),
          Param{"k3", ParamType::Number, 0, "radial, r⁶"}.range(-10, 10),
          Param{"p1", ParamType::Number, 0, "tangential"}.range(-10, 10),
          Param{"p2", ParamType::Number, 0, "tangential"}.range(-10, 10),
          Param{"centre", ParamType::Vec2, json{0, 0},
                "the distortion centre's offset from the format's centre"}
              .anyValue(),
          Param{"format", ParamType::Rect, json{0, 0, 0, 0},
                "the plate's frame, which sets the centre and the unit (empty: the input's box)"}
              .anyValue(),
          {"undistort", ParamType::Bool, false, "remove the distortion instead of applying it"}},
         {"input"},
         [](const OperationArgs& a) {
             LensDistortionParams p;
             p.k1 = a.number("k1"), p.k2 = a.number("k2"), p.k3 = a.number("k3");
             p.p1 = a.number("p1"), p.p2 = a.number("p2");
             p.centre = a.vec2("centre");
             p.format = a.rect("format");
             p.undistort = a.flag("undistort");
             return createLensDistortionTask(a.node(), a.time(), p, a.input("input"));
         },
         "Brown–Conrady about the centre, x and y in units of half the format's width, r² = "
         "x² + y²: x<sub>d</sub> = x (1 + k1 r² + k2 r⁴ + k3 r⁶) + 2 p1 x y + p2 (r² + 2 x²), "
         "y<sub>d</sub> = y (1 + …) + p1 (r² + 2 y²) + 2 p2 x y. Distorting reads the input at "
         "the inverse, found by Newton's method; the output box grows or shrinks to hold the "
         "whole input (overscan). Bilinear."});
    ops.push_back(
        {"stmap",
         "the input read where an ST map points",
         {channelParam("s", "r", "the map's channel of s (0 to 1 left to right)"),
          channelParam("t", "g", "the map's channel of t (0 to 1 bottom to top)")},
         {"input", "map"},
         [](const OperationArgs& a) {
             return createSTMapTask(a.node(), a.time(), a.channel("s"), a.channel("t"),
                                    a.input("input"), a.input("map"));
         },
         "Output pixel (x, y) reads the input, bilinearly, at (x<sub>0</sub> + s W, "
         "y<sub>1</sub> − t H) of its box, s and t from the map's pixel (x, y). The output "
         "covers the map."});
}

}  // namespace Private
}  // namespace TESSERA
