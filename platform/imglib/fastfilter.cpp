#include "imglib/fastfilter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <string>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/filterengine.h"
#include "imglib/pixels.h"

namespace IMGLIB {

int64_t GetFilterPadding(float size) {
    const float s = size > 1.0f ? std::min(size, 2e9f) : 1.0f;  // 0, negative and NaN: 1
    return static_cast<int64_t>(std::ceil((s - 1.0f) * 0.5f));
}

std::vector<float> GetFilterWeights(FilterType filter, float size) {
    const int64_t pad = GetFilterPadding(size);
    std::vector<float> w(static_cast<size_t>(2 * pad + 1), 0.0f);
    if (pad == 0) {
        w[0] = 1.0f;
        return w;
    }
    float sum = 0.0f;
    for (int64_t d = -pad; d <= pad; ++d) {
        float value;
        if (filter == KERNEL_BOX || filter == KERNEL_NEAREST) {
            // The part of pixel [d - 1/2, d + 1/2] the box [-size/2, size/2] covers.
            const float lo = std::max(float(d) - 0.5f, -0.5f * size);
            const float hi = std::min(float(d) + 0.5f, 0.5f * size);
            value = std::max(0.0f, hi - lo);
        } else {
            value = EvalKernel(filter, float(d), size);
        }
        w[static_cast<size_t>(d + pad)] = value;
        sum += value;
    }
    if (sum != 0.0f)
        for (float& v : w) v /= sum;
    else
        w[static_cast<size_t>(pad)] = 1.0f;
    return w;
}

int FastFilter(const Image* out, const Image* in, FilterType filterX, float sizeX,
               FilterType filterY, float sizeY) {
    if (!out || !in) return SetError(ERROR_NULL_IMAGE, "FastFilter: null image");
    if (out->channels != in->channels)
        return SetError(ERROR_INVALID_CHANNEL_MASK, "FastFilter: input and output channels differ");
    if (!IsChannelMaskValid(out->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, "FastFilter: invalid channel mask");
    const int64_t padX = GetFilterPadding(sizeX), padY = GetFilterPadding(sizeY);
    if (in->x1 > out->x1 - padX || in->x2 < out->x2 + padX || in->y1 > out->y1 - padY ||
        in->y2 < out->y2 + padY)
        return SetError(ERROR_OUT_OF_BOUNDS,
                        "FastFilter: the input does not cover the output "
                        "grown by the filter's reach");
    if (out->width() == 0 || out->height() == 0 || !out->channels) return ERROR_NONE;
    const int n = GetChannelCount(out->channels);
    const size_t rowFloats = static_cast<size_t>(out->width()) * n;
    const std::vector<float> wx = GetFilterWeights(filterX, sizeX);
    const std::vector<float> wy = GetFilterWeights(filterY, sizeY);
    const int64_t pixelBytes = 4 * n;

    if (padY == 0) {  // one pass, along x
        for (int64_t y = out->y1; y < out->y2; ++y)
            DispatchFilterRow(GetPixelAddress(out, out->x1, y, pixelBytes),
                              GetPixelAddress(in, out->x1, y, pixelBytes), rowFloats, n, wx.data(),
                              padX);
        return ERROR_NONE;
    }
    if (padX == 0) {
        DispatchFilterColumns(out, GetPixelAddress(in, out->x1, out->y1, pixelBytes),
                              static_cast<size_t>(in->rowBytes / 4), rowFloats, wy.data(), padY);
        return ERROR_NONE;
    }
    // Both axes: along x into rows that cover the vertical reach, then along
    // y, in bands of output rows. Each band filters along x only the rows the
    // previous band did not, just before the vertical pass reads them, so the
    // intermediate rows are still in cache when they are read.
    const int64_t rows = out->height() + 2 * padY;
    const size_t stride =
        static_cast<size_t>(GetPaddedRowBytes(out->width(), pixelBytes, rows) / 4);
    // Each thread keeps its rows for the next tile (a fresh allocation
    // would fault its pages in every time), unless they are unusually many.
    const size_t floats = stride * static_cast<size_t>(rows) + kPixelAlignment / sizeof(float);
    constexpr size_t kKeptFloats = size_t(4) << 20;
    thread_local std::vector<float> kept;
    std::vector<float> local;
    std::vector<float>& rowsBuffer = floats <= kKeptFloats ? kept : local;
    if (rowsBuffer.size() < floats) rowsBuffer.resize(floats);
    float* const temp = AlignPixels(rowsBuffer.data());
    constexpr int64_t kBand = 64;
    int64_t filtered = 0;  // intermediate rows done, from out->y1 - padY
    for (int64_t y = out->y1; y < out->y2; y += kBand) {
        const int64_t bandEnd = std::min(out->y2, y + kBand);
        for (; filtered < bandEnd + padY - (out->y1 - padY); ++filtered)
            DispatchFilterRow(temp + filtered * stride,
                              GetPixelAddress(in, out->x1, out->y1 - padY + filtered, pixelBytes),
                              rowFloats, n, wx.data(), padX);
        Image band;
        GetSubImage(out, out->x1, y, out->x2, bandEnd, &band);
        DispatchFilterColumns(&band, temp + (y - out->y1 + padY) * stride, stride, rowFloats,
                              wy.data(), padY);
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
