// Separable scale and translate. Each tile filters the input rows it needs
// horizontally into a scratch buffer, then those columns vertically: the
// weights of a pixel depend only on its position, so the result is the
// same for any tiling.
#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "imglib/channels.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "private/operation.h"
#include "transformtasks.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;
using UTIL::Rect;

// One axis: output coordinate c reads input pixels first .. first + taps - 1
// with normalised weights.
struct Axis {
    float scale = 1, translate = 0;
    IMGLIB::KernelType filter = IMGLIB::KERNEL_LANCZOS3;

    // Nearest point-samples, whatever the scale: the one pixel under the
    // output pixel's centre.
    bool pointSamples() const { return filter == IMGLIB::KERNEL_NEAREST; }
    // Pixels either side of the centre pixel the filter reaches.
    int64_t radius() const {
        if (pointSamples()) return 0;
        const float width = IMGLIB::GetKernelWidth(filter) / std::min(1.0f, scale);
        return int64_t(std::ceil(0.5f * width));
    }
    // The input centre of output pixel c, as a pixel and a fraction.
    int64_t centre(int64_t c, float* fraction) const {
        const float x = (float(c) + 0.5f - translate) / scale;
        const float pixel = std::floor(x);
        *fraction = x - pixel;
        return int64_t(pixel);
    }
    // The input pixels outputs [lo, hi) read.
    std::pair<int64_t, int64_t> reach(int64_t lo, int64_t hi) const {
        float f;
        return {centre(lo, &f) - radius(), centre(hi - 1, &f) + radius() + 1};
    }
    // The output pixels input pixels [lo, hi) reach.
    std::pair<int64_t, int64_t> image(int64_t lo, int64_t hi) const {
        return {int64_t(std::floor(double(lo) * scale + translate)),
                int64_t(std::ceil(double(hi) * scale + translate))};
    }
    // Weights of outputs [lo, hi): (2 radius + 1) each, for input pixels
    // from centre - radius.
    void weights(int64_t lo, int64_t hi, std::vector<int64_t>& first, std::vector<float>& w) const {
        const int64_t r = radius(), taps = 2 * r + 1;
        const float squeeze = std::min(1.0f, scale), width = IMGLIB::GetKernelWidth(filter);
        first.resize(size_t(hi - lo));
        w.resize(size_t((hi - lo) * taps));
        for (int64_t c = lo; c < hi; ++c) {
            float fraction;
            const int64_t centrePixel = centre(c, &fraction);
            first[size_t(c - lo)] = centrePixel - r;
            float* cw = &w[size_t((c - lo) * taps)];
            if (pointSamples()) {
                cw[0] = 1.0f;
                continue;
            }
            float sum = 0;
            for (int64_t i = 0; i < taps; ++i) {
                const float offset = float(i - r) + 0.5f - fraction;
                cw[i] = IMGLIB::EvalKernel(filter, offset * squeeze, width);
                sum += cw[i];
            }
            if (sum != 0.0f)
                for (int64_t i = 0; i < taps; ++i) cw[i] /= sum;
        }
    }
};

// One output pixel of the horizontal pass: the taps' weighted sum, channel
// by channel (kN channels, or n when kN is 0).
template <int kN>
inline void filterPixel(const float* w, int64_t taps, const float* p, int n, float* out) {
    constexpr int kMax = 64;
    float acc[kN ? kN : kMax] = {};
    const int channels = kN ? kN : n;
    for (int64_t i = 0; i < taps; ++i, p += channels)
        for (int c = 0; c < channels; ++c) acc[c] += w[i] * p[c];
    for (int c = 0; c < channels; ++c) out[c] = acc[c];
}

class ResizeTask : public RenderTask {
public:
    ResizeTask(const std::string& name, float time, const ResizeParams& p, TaskPtr input)
        : RenderTask(name, time), m_params(p) {
        m_x = Axis{p.scaleX, p.translateX, p.filter};
        m_y = Axis{p.scaleY, p.translateY, p.filter};
        registerInputTask(std::move(input));
    }

protected:
    std::string getTypeString() override { return "Resize"; }
    void computeCacheID(CacheIDStream& s) override {
        s << m_params.scaleX << ',' << m_params.scaleY << ',' << m_params.translateX << ','
          << m_params.translateY << ',' << int(m_params.filter) << ',' << int(m_params.extend)
          << ',' << m_params.box;
    }
    uint64_t computeOutputChannels() override {
        m_inputBox = getDefinedInputDataRegion(0).boundingBox();
        if (!m_inputBox.isNull()) {
            const auto [x1, x2] = m_x.image(m_inputBox.xmin, m_inputBox.xmax);
            const auto [y1, y2] = m_y.image(m_inputBox.ymin, m_inputBox.ymax);
            m_box = m_params.box.isNull() ? Rect(x1, y1, x2, y2) : m_params.box;
        }
        return getDefinedInputChannels(0);
    }
    UTIL::Region computeOutputDataRegion() override {
        UTIL::Region r;
        r.add(m_box);
        return r;
    }
    // The input's format scaled, its edges rounded to the nearest pixel; a
    // resize to a size makes a format that was the input's box that size.
    Rect computeFormat() override {
        const Rect& in = getInputFormat(0);
        if (in.isNull()) return in;
        if (!m_params.box.isNull() && in == m_inputBox) return m_box;
        auto edge = [](int64_t c, const Axis& a) {
            return int64_t(std::llround(double(c) * a.scale + a.translate));
        };
        return Rect(edge(in.xmin, m_x), edge(in.ymin, m_y), edge(in.xmax, m_x), edge(in.ymax, m_y));
    }
    void makeInputFormatRequests() override {
        addInputRequest(0, getDefinedInputChannels(0) & getRequiredOutputChannels(),
                        m_params.extend, false, m_inputBox);
    }
    void computeRequiredInputRectangles(const Rect& outputRect,
                                        std::vector<Rect>& inputRects) override {
        const Rect r = outputRect.intersection(m_box);
        if (r.isNull()) {
            inputRects.assign(1, Rect());
            return;
        }
        const auto [x1, x2] = m_x.reach(r.xmin, r.xmax);
        const auto [y1, y2] = m_y.reach(r.ymin, r.ymax);
        inputRects.assign(1, Rect(x1, y1, x2, y2));
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override;

private:
    ResizeParams m_params;
    Axis m_x, m_y;
    Rect m_inputBox, m_box;
};

void ResizeTask::renderRect(const IMGLIB::Image* out,
                            const std::vector<const IMGLIB::Image*>& inputs) {
    const Color4f bg = getBackgroundColor();
    const float bgPixel[4] = {bg.r, bg.g, bg.b, bg.a};
    Private::checkImglib(IMGLIB::Fill(out, bgPixel), getNameAtTime());
    const IMGLIB::Image* in = inputs.empty() ? nullptr : inputs[0];
    const Rect r = Rect(out->x1, out->y1, out->x2, out->y2).intersection(m_box);
    if (!in || r.isNull()) return;
    const int n = IMGLIB::GetChannelCount(out->channels);
    if (in->channels != out->channels)
        throw RenderTaskRenderingException(getNameAtTime(), "input channels differ", -1);

    std::vector<int64_t> firstX, firstY;
    std::vector<float> wx, wy;
    m_x.weights(r.xmin, r.xmax, firstX, wx);
    m_y.weights(r.ymin, r.ymax, firstY, wy);
    const int64_t tapsX = 2 * m_x.radius() + 1, tapsY = 2 * m_y.radius() + 1;
    const int64_t width = r.width();
    const int64_t rowLo = firstY.front(), rowHi = firstY.back() + tapsY;
    // Horizontal pass over every input row the tile reads.
    std::vector<float> rows(size_t((rowHi - rowLo) * width * n));
    for (int64_t sy = rowLo; sy < rowHi; ++sy) {
        const float* src = IMGLIB::GetPixelAddress(in, in->x1, sy, 4 * n);
        float* dst = &rows[size_t((sy - rowLo) * width * n)];
        const auto row = [&](auto channels) {
            constexpr int kN = decltype(channels)::value;
            const int c = kN ? kN : n;
            for (int64_t x = 0; x < width; ++x, dst += c) {
                const float* w = &wx[size_t(x * tapsX)];
                const float* p = src + (firstX[size_t(x)] - in->x1) * c;
                filterPixel<kN>(w, tapsX, p, c, dst);
            }
        };
        // RGBA, the usual case, with the channel loop unrolled.
        if (n == 4)
            row(std::integral_constant<int, 4>());
        else
            row(std::integral_constant<int, 0>());
    }
    // Vertical pass: whole rows at a time.
    const int64_t rowFloats = width * n;
    for (int64_t y = r.ymin; y < r.ymax; ++y) {
        float* dst = IMGLIB::GetPixelAddress(out, r.xmin, y, 4 * n);
        const float* w = &wy[size_t((y - r.ymin) * tapsY)];
        const float* src = &rows[size_t((firstY[size_t(y - r.ymin)] - rowLo) * rowFloats)];
        for (int64_t k = 0; k < rowFloats; ++k) dst[k] = 0.0f;
        for (int64_t j = 0; j < tapsY; ++j, src += rowFloats)
            for (int64_t k = 0; k < rowFloats; ++k) dst[k] += w[j] * src[k];
    }
}

}  // namespace

TaskPtr createResizeTask(const std::string& name, float time, const ResizeParams& params,
                         TaskPtr input) {
    Private::checkParameters(
        "scale", name,
        {{"scale", {params.scaleX, params.scaleY}},
         {"translate", {params.translateX, params.translateY}},
         {"filter", Private::choiceValue(Private::kernelChoices(), params.filter)},
         {"extend", Private::choiceValue(Private::extendChoices(), params.extend)}});
    if (!input) throw RenderTaskRenderingException(name, "Resize requires an input", -1);
    return TaskPtr(new ResizeTask(name, time, params, std::move(input)));
}

namespace Private {

namespace {

// The input's bounding box, which a resize to a size maps onto.
Rect inputBox(const TaskPtr& input) {
    UTIL::Region region;
    input->getOutputDescription(nullptr, &region);
    return region.boundingBox();
}

}  // namespace

void declareResizeOperations(OperationList& ops) {
    ops.push_back(
        {"resize",
         "the input's box resampled to a size, its top-left corner kept",
         {Param{"size", ParamType::Vec2, json{0, 0},
                "width and height in pixels (0: keep that side's aspect with the other)"}
              .range(0, 1e6)
              .withExample({37, 0}),
          kernelParam("filter", "lanczos3", "the reconstruction filter"),
          extendParam("extend", "clamp", "what the filter reads beyond the edge")},
         {"input"},
         [](const OperationArgs& a) {
             const TaskPtr input = a.input("input");
             const Rect box = inputBox(input);
             Imath::V2f size = a.vec2("size");
             if (box.isNull() || (size.x <= 0 && size.y <= 0)) return input;
             if (size.x != std::floor(size.x) || size.y != std::floor(size.y))
                 a.fail("size", "needs whole pixels");
             // The size in whole pixels (a side left 0 keeps the aspect,
             // rounded to the nearest), exactly: the box is set, not
             // rounded from the scaled one.
             const int64_t w = box.width(), h = box.height();
             const int64_t width =
                 size.x > 0 ? int64_t(size.x)
                            : std::max<int64_t>(1, (int64_t(size.y) * w * 2 + h) / (2 * h));
             const int64_t height =
                 size.y > 0 ? int64_t(size.y)
                            : std::max<int64_t>(1, (int64_t(size.x) * h * 2 + w) / (2 * w));
             ResizeParams p;
             p.scaleX = float(double(width) / double(w));
             p.scaleY = float(double(height) / double(h));
             p.translateX = float(double(box.xmin) * (1.0 - double(p.scaleX)));
             p.translateY = float(double(box.ymin) * (1.0 - double(p.scaleY)));
             p.box = Rect(box.xmin, box.ymin, box.xmin + width, box.ymin + height);
             p.filter = a.kernel("filter");
             p.extend = a.extend("extend");
             return createResizeTask(a.node(), a.time(), p, input);
         },
         "As `oiiotool --resize`: output pixel centre X reads the input at x<sub>0</sub> + (X "
         "− x<sub>0</sub> + ½) / s − ½, weights from the filter at its natural width where "
         "enlarging and widened by 1 / s where reducing (free of aliasing), normalised; "
         "separable. `nearest` point-samples the pixel under each output pixel's centre, "
         "shrinking too. The output is exactly the size asked for."});
    ops.push_back(
        {"scale",
         "scale about the origin, then translate",
         {Param{"scale", ParamType::Vec2, json{0.5, 0.5}, "the factor of width and height"}.range(
              1.0 / 1024, 1024),
          Param{"translate", ParamType::Vec2, json{0, 0},
                "the move after scaling, in pixels (right and down)"}
              .range(-double(UTIL::Rect::INFINITE_EXTENT), double(UTIL::Rect::INFINITE_EXTENT)),
          kernelParam("filter", "lanczos3", "the reconstruction filter"),
          extendParam("extend", "clamp", "what the filter reads beyond the edge")},
         {"input"},
         [](const OperationArgs& a) {
             ResizeParams p;
             p.scaleX = a.vec2("scale").x;
             p.scaleY = a.vec2("scale").y;
             p.translateX = a.vec2("translate").x;
             p.translateY = a.vec2("translate").y;
             p.filter = a.kernel("filter");
             p.extend = a.extend("extend");
             return createResizeTask(a.node(), a.time(), p, a.input("input"));
         },
         "X = s x + t per axis, filtered as `resize` does."});
    ops.push_back({"proxy",
                   "a half, quarter or eighth size proxy for viewing",
                   {Param{"level", ParamType::Int, 1, "1: 1/2, 2: 1/4, 3: 1/8"}.range(1, 3),
                    kernelParam("filter", "box", "box averages each square of pixels")},
                   {"input"},
                   [](const OperationArgs& a) {
                       ResizeParams p;
                       p.scaleX = p.scaleY = 1.0f / float(1 << a.integer("level"));
                       p.filter = a.kernel("filter");
                       return createResizeTask(a.node(), a.time(), p, a.input("input"));
                   },
                   "A `scale` by 2<sup>−level</sup> about the origin."});
}

}  // namespace Private
}  // namespace TESSERA
