// Separable scale and translate: the task maps boxes and formats, IMGLIB's
// ResizeImage filters the pixels.
#include <algorithm>
#include <cmath>
#include <vector>

#include "imglib/pixels.h"
#include "imglib/resize.h"
#include "private/imglibcall.h"
#include "private/operation.h"
#include "transformtasks.h"

namespace TESSERA {
namespace {

using Color4f = Imath::Color4<float>;
using UTIL::Rect;

using Axis = IMGLIB::ResizeAxis;

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
    const IMGLIB::Image* in = inputs.empty() ? nullptr : inputs[0];
    const Rect tile(out->x1, out->y1, out->x2, out->y2);
    const Rect r = tile.intersection(m_box);
    if (!in || r != tile) {  // the background where no resized pixel lands
        const Color4f bg = getBackgroundColor();
        const float bgPixel[4] = {bg.r, bg.g, bg.b, bg.a};
        Private::checkImglib(IMGLIB::Fill(out, bgPixel), getNameAtTime());
    }
    if (!in || r.isNull()) return;
    Private::checkImglib(IMGLIB::ResizeImage(out, in, r, m_x, m_y), getNameAtTime());
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
