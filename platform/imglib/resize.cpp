#include "imglib/resize.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "imglib/rowops.h"

namespace IMGLIB {

int64_t ResizeAxis::radius() const {
    if (pointSamples()) return 0;
    const float width = GetKernelWidth(filter) / std::min(1.0f, scale);
    return int64_t(std::ceil(0.5f * width));
}

int64_t ResizeAxis::centre(int64_t c, float* fraction) const {
    const float x = (float(c) + 0.5f - translate) / scale;
    const float pixel = std::floor(x);
    *fraction = x - pixel;
    return int64_t(pixel);
}

std::pair<int64_t, int64_t> ResizeAxis::reach(int64_t lo, int64_t hi) const {
    float f;
    return {centre(lo, &f) - radius(), centre(hi - 1, &f) + radius() + 1};
}

std::pair<int64_t, int64_t> ResizeAxis::image(int64_t lo, int64_t hi) const {
    return {int64_t(std::floor(double(lo) * scale + translate)),
            int64_t(std::ceil(double(hi) * scale + translate))};
}

void ResizeAxis::weights(int64_t lo, int64_t hi, std::vector<int64_t>& first,
                         std::vector<float>& w) const {
    const int64_t r = radius(), n = taps();
    const float squeeze = std::min(1.0f, scale), width = GetKernelWidth(filter);
    first.resize(size_t(hi - lo));
    w.resize(size_t((hi - lo) * n));
    for (int64_t c = lo; c < hi; ++c) {
        float fraction;
        const int64_t centrePixel = centre(c, &fraction);
        first[size_t(c - lo)] = centrePixel - r;
        float* cw = &w[size_t((c - lo) * n)];
        if (pointSamples()) {
            cw[0] = 1.0f;
            continue;
        }
        float sum = 0;
        for (int64_t i = 0; i < n; ++i) {
            const float offset = float(i - r) + 0.5f - fraction;
            cw[i] = EvalKernel(filter, offset * squeeze, width);
            sum += cw[i];
        }
        if (sum != 0.0f)
            for (int64_t i = 0; i < n; ++i) cw[i] /= sum;
    }
}

namespace {

// Scratch rows between the passes: left uninitialised, every float is
// written before it is read.
std::unique_ptr<float[]> scratch(int64_t floats) {
    return std::unique_ptr<float[]>(new float[size_t(std::max<int64_t>(floats, 1))]);
}

// Work per output pixel of each order, in filtered floats: the first pass
// filters 1 / scale of the second pass's pixels. A pixel filtered along a
// row costs about four times what a whole row's vector does per float.
// Chosen from the axes alone, so every tile sums in the same order.
bool verticalFirst(const ResizeAxis& x, const ResizeAxis& y) {
    constexpr double kRowCost = 4.0;
    const double tx = double(x.taps()) * kRowCost, ty = double(y.taps());
    const double horizontalFirst = tx / double(y.scale) + ty;
    const double vertical = ty / double(x.scale) + tx;
    return vertical < horizontalFirst;
}

}  // namespace

int ResizeImage(const Image* out, const Image* in, const UTIL::Rect& rect, const ResizeAxis& x,
                const ResizeAxis& y) {
    if (!out || !in) return SetError(ERROR_NULL_IMAGE, "ResizeImage: null image");
    if (in->channels != out->channels || !IsChannelMaskValid(out->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, "ResizeImage: channels differ or are invalid");
    const UTIL::Rect r = rect.intersection(UTIL::Rect(out->x1, out->y1, out->x2, out->y2));
    if (r.isNull() || !out->channels) return ERROR_NONE;
    const int64_t n = GetChannelCount(out->channels), pixelBytes = 4 * n;
    std::vector<int64_t> firstX, firstY;
    std::vector<float> wx, wy;
    x.weights(r.xmin, r.xmax, firstX, wx);
    y.weights(r.ymin, r.ymax, firstY, wy);
    const int64_t tapsX = x.taps(), tapsY = y.taps();
    const int64_t colLo = firstX.front(), colHi = firstX.back() + tapsX;
    const int64_t rowLo = firstY.front(), rowHi = firstY.back() + tapsY;
    if (colLo < in->x1 || colHi > in->x2 || rowLo < in->y1 || rowHi > in->y2 || !in->pixelPtr)
        return SetError(ERROR_OUT_OF_BOUNDS,
                        "ResizeImage: the input lacks pixels the output reads");
    const int64_t width = r.width();
    std::vector<const float*> rows(size_t(std::max(tapsY, int64_t(1))));

    if (verticalFirst(x, y)) {
        // Each output row's input columns, filtered down the rows first.
        const int64_t span = (colHi - colLo) * n;
        const std::unique_ptr<float[]> columns = scratch(span);
        for (int64_t oy = r.ymin; oy < r.ymax; ++oy) {
            const size_t k = size_t(oy - r.ymin);
            for (int64_t j = 0; j < tapsY; ++j)
                rows[size_t(j)] = GetPixelAddress(in, colLo, firstY[k] + j, pixelBytes);
            RowWeightedSum(columns.get(), rows.data(), &wy[k * size_t(tapsY)], size_t(tapsY),
                           size_t(span));
            RowResample(GetPixelAddress(out, r.xmin, oy, pixelBytes), columns.get(), colLo,
                        firstX.data(), wx.data(), size_t(tapsX), size_t(width), size_t(n));
        }
        return ERROR_NONE;
    }
    // Every input row the output rows read, filtered along the row first.
    const int64_t rowFloats = width * n;
    const std::unique_ptr<float[]> filtered = scratch((rowHi - rowLo) * rowFloats);
    for (int64_t sy = rowLo; sy < rowHi; ++sy)
        RowResample(&filtered[size_t((sy - rowLo) * rowFloats)],
                    GetPixelAddress(in, colLo, sy, pixelBytes), colLo, firstX.data(), wx.data(),
                    size_t(tapsX), size_t(width), size_t(n));
    for (int64_t oy = r.ymin; oy < r.ymax; ++oy) {
        const size_t k = size_t(oy - r.ymin);
        for (int64_t j = 0; j < tapsY; ++j)
            rows[size_t(j)] = &filtered[size_t((firstY[k] + j - rowLo) * rowFloats)];
        RowWeightedSum(GetPixelAddress(out, r.xmin, oy, pixelBytes), rows.data(),
                       &wy[k * size_t(tapsY)], tapsY, rowFloats);
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
