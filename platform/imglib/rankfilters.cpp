#include "imglib/rankfilters.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "imglib/fastfilter.h"
#include "imglib/neighbourhood.h"
#include "imglib/rowops.h"

namespace IMGLIB {

int64_t GetMedianPadding(float size) {
    return GetFilterPadding(size);
}

int64_t GetErodeDilatePadding(float radius) {
    return ReachPixels(std::fabs(radius));
}

int MedianFilter(const Image* out, const Image* in, float sizeX, float sizeY, bool circular,
                 float threshold) {
    const int64_t padX = GetMedianPadding(sizeX), padY = GetMedianPadding(sizeY);
    if (int status = CheckNeighbourhood("MedianFilter", out, in, padX, padY)) return status;
    // The window's offsets, once.
    std::vector<std::pair<int64_t, int64_t>> window;
    for (int64_t dy = -padY; dy <= padY; ++dy)
        for (int64_t dx = -padX; dx <= padX; ++dx) {
            const double ex = padX ? double(dx) / (padX + 0.5) : 0.0;
            const double ey = padY ? double(dy) / (padY + 0.5) : 0.0;
            if (!circular || ex * ex + ey * ey <= 1.0) window.emplace_back(dx, dy);
        }
    const PixelGrid src(in), dst(out);
    const auto numberFirst = [](float a, float b) {
        return std::isnan(a) ? false : (std::isnan(b) ? true : a < b);
    };
    std::vector<float> values(window.size());
    const size_t middle = values.size() / 2;
    const size_t rowFloats = static_cast<size_t>(out->width() * dst.n);
    // A 3x3 window over rows without NaN: the median network, a row at a
    // time; anything else sorts each window. Each input row is looked at
    // once for NaN.
    std::vector<bool> numbersOnly;
    if (window.size() == 9)
        for (int64_t r = out->y1 - 1; r < out->y2 + 1; ++r) {
            const float* row = src.at(out->x1 - 1, r);
            numbersOnly.push_back(std::none_of(row, row + rowFloats + 2 * dst.n,
                                               [](float v) { return std::isnan(v); }));
        }
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* o = dst.at(out->x1, y);
        const size_t r = static_cast<size_t>(y - out->y1);  // numbersOnly[r] is row y - 1
        const bool network =
            !numbersOnly.empty() && numbersOnly[r] && numbersOnly[r + 1] && numbersOnly[r + 2];
        if (network) {
            const float* rows[9];
            for (size_t i = 0; i < 9; ++i)
                rows[i] = src.at(out->x1 + window[i].first, y + window[i].second);
            RowMedian9(o, rows, rowFloats);
        } else {
            for (int64_t x = out->x1; x < out->x2; ++x)
                for (int c = 0; c < dst.n; ++c) {
                    for (size_t i = 0; i < window.size(); ++i)
                        values[i] = src.at(x + window[i].first, y + window[i].second)[c];
                    std::nth_element(values.begin(), values.begin() + middle, values.end(),
                                     numberFirst);
                    dst.at(x, y)[c] = values[middle];
                }
        }
        if (!(threshold > 0.0f)) continue;
        const float* original = src.at(out->x1, y);
        for (size_t i = 0; i < rowFloats; ++i)
            if (!(std::fabs(original[i] - o[i]) > threshold)) o[i] = original[i];
    }
    return ERROR_NONE;
}

namespace {

// One axis of the morphology over `count` floats: dst[i] blends the extreme
// of src[i + d * step] for |d| <= whole with the one for |d| <= whole + 1.
void extremeAlong(float* dst, const float* src, size_t count, int64_t step, int64_t whole,
                  float fraction, bool dilate) {
    const auto pick = [dilate](float a, float b) {
        return dilate ? std::max(a, b) : std::min(a, b);
    };
    std::copy(src, src + count, dst);
    for (int64_t d = 1; d <= whole; ++d)
        RowExtreme(dst, src - d * step, src + d * step, count, dilate);
    if (fraction <= 0.0f) return;
    const float* left = src - (whole + 1) * step;
    const float* right = src + (whole + 1) * step;
    for (size_t i = 0; i < count; ++i)
        dst[i] += fraction * (pick(dst[i], pick(left[i], right[i])) - dst[i]);
}

}  // namespace

int ErodeOrDilate(const Image* out, const Image* in, float radiusX, float radiusY) {
    const int64_t padX = GetErodeDilatePadding(radiusX), padY = GetErodeDilatePadding(radiusY);
    if (int status = CheckNeighbourhood("ErodeOrDilate", out, in, padX, padY)) return status;
    if (out->width() == 0 || out->height() == 0) return ERROR_NONE;
    const PixelGrid src(in), dst(out);
    const size_t rowFloats = static_cast<size_t>(out->width() * dst.n);
    const auto split = [](float radius, int64_t pad, int64_t& whole, float& fraction) {
        whole = pad;
        fraction = 0.0f;
        if (pad == 0) return;
        const float r = std::min(std::fabs(radius), 1e9f);
        whole = static_cast<int64_t>(std::floor(r));
        fraction = r - float(whole);
    };
    int64_t wholeX, wholeY;
    float fractionX, fractionY;
    split(radiusX, padX, wholeX, fractionX);
    split(radiusY, padY, wholeY, fractionY);
    // Along x for every row the y pass reads, then along y.
    const int64_t rows = out->height() + 2 * padY;
    std::vector<float> temp(rowFloats * static_cast<size_t>(rows));
    for (int64_t r = 0; r < rows; ++r)
        extremeAlong(temp.data() + r * rowFloats, src.at(out->x1, out->y1 - padY + r), rowFloats,
                     dst.n, wholeX, fractionX, radiusX > 0.0f);
    for (int64_t y = out->y1; y < out->y2; ++y)
        extremeAlong(dst.at(out->x1, y), temp.data() + (y - out->y1 + padY) * rowFloats, rowFloats,
                     static_cast<int64_t>(rowFloats), wholeY, fractionY, radiusY > 0.0f);
    return ERROR_NONE;
}

}  // namespace IMGLIB
