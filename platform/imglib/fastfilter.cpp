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
    const float s = size > 1.0f ? size : 1.0f;  // 0, negative and NaN: 1
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
    const bool boxX = filterX == KERNEL_BOX || filterX == KERNEL_NEAREST;
    const bool boxY = filterY == KERNEL_BOX || filterY == KERNEL_NEAREST;
    const int64_t pixelBytes = 4 * n;

    if (padY == 0) {  // one pass, along x
        for (int64_t y = out->y1; y < out->y2; ++y)
            DispatchFilterRow(GetPixelAddress(out, out->x1, y, pixelBytes),
                              GetPixelAddress(in, out->x1, y, pixelBytes), rowFloats, n, wx.data(),
                              padX, boxX);
        return ERROR_NONE;
    }
    // Along x into rows that cover the vertical reach, then along y. The
    // intermediate rows live in one buffer of the output's width.
    const int64_t rows = out->height() + 2 * padY;
    std::vector<float> temp;
    const float* source = nullptr;
    size_t sourceStride = 0;
    if (padX > 0) {
        temp.resize(rowFloats * static_cast<size_t>(rows));
        for (int64_t r = 0; r < rows; ++r)
            DispatchFilterRow(temp.data() + r * rowFloats,
                              GetPixelAddress(in, out->x1, out->y1 - padY + r, pixelBytes),
                              rowFloats, n, wx.data(), padX, boxX);
        source = temp.data() + padY * rowFloats;
        sourceStride = rowFloats;
    } else {
        source = GetPixelAddress(in, out->x1, out->y1, pixelBytes);
        sourceStride = static_cast<size_t>(in->rowBytes / 4);
    }
    DispatchFilterColumns(out, source, sourceStride, rowFloats, wy.data(), padY, boxY);
    return ERROR_NONE;
}

}  // namespace IMGLIB
