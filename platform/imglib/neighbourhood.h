// Shared plumbing of the neighbourhood operators: argument checks, pixel
// addressing and bilinear sampling of interleaved float images.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/image.h"

namespace IMGLIB {

// Read-only view of an image's pixels by integer coordinates.
struct PixelGrid {
    explicit PixelGrid(const Image* image)
        : base(static_cast<float*>(image->pixelPtr)),
          x1(image->x1),
          y1(image->y1),
          x2(image->x2),
          y2(image->y2),
          stride(image->rowBytes / 4),
          n(GetChannelCount(image->channels)) {}

    float* at(int64_t x, int64_t y) const { return base + (y - y1) * stride + (x - x1) * n; }
    bool contains(int64_t x, int64_t y) const { return x >= x1 && x < x2 && y >= y1 && y < y2; }

    // Every channel at a continuous position (pixel centres on whole
    // numbers), bilinear between the four nearest pixels with the grid's edge
    // repeated, times `weight`, added to acc[0 .. n).
    void addSample(float fx, float fy, float weight, float* acc) const {
        fx = std::clamp(fx, float(x1), float(x2 - 1));
        fy = std::clamp(fy, float(y1), float(y2 - 1));
        const int64_t ix = std::min(int64_t(fx), x2 - 2 < x1 ? x1 : x2 - 2);
        const int64_t iy = std::min(int64_t(fy), y2 - 2 < y1 ? y1 : y2 - 2);
        const float tx = x2 - x1 > 1 ? fx - float(ix) : 0.0f;
        const float ty = y2 - y1 > 1 ? fy - float(iy) : 0.0f;
        const int64_t dx = x2 - x1 > 1 ? n : 0, dy = y2 - y1 > 1 ? stride : 0;
        const float* p = at(ix, iy);
        for (int c = 0; c < n; ++c) {
            const float top = p[c] + (p[c + dx] - p[c]) * tx;
            const float bottom = p[c + dy] + (p[c + dy + dx] - p[c + dy]) * tx;
            acc[c] += weight * (top + (bottom - top) * ty);
        }
    }

    float* base;
    int64_t x1, y1, x2, y2;
    int64_t stride;  // floats from one row to the next
    int n;           // channels per pixel
};

// A working image owned by the operator: `like`'s channels over the given
// bounds (`like`'s own when none are given), rows packed.
struct ScratchImage {
    explicit ScratchImage(const Image& like)
        : ScratchImage(like, like.x1, like.y1, like.x2, like.y2) {}
    ScratchImage(const Image& like, int64_t x1, int64_t y1, int64_t x2, int64_t y2) {
        image.channels = like.channels;
        image.x1 = x1, image.y1 = y1, image.x2 = x2, image.y2 = y2;
        image.rowBytes = image.width() * GetChannelCount(like.channels) * 4;
        pixels.resize(static_cast<size_t>(image.rowBytes / 4 * image.height()));
        image.pixelPtr = pixels.data();
    }
    Image image;
    std::vector<float> pixels;
};

// The slots of the R, G and B channels an image has, in that order; returns
// how many it has.
inline int ColourSlots(uint64_t channels, int slots[3]) {
    int count = 0;
    for (uint64_t bit : {uint64_t(CHANNEL_R), uint64_t(CHANNEL_G), uint64_t(CHANNEL_B)}) {
        const int slot = GetChannelIndex(channels, bit);
        if (slot >= 0) slots[count++] = slot;
    }
    return count;
}

// Checks shared by every neighbourhood operator: both images present, the
// same valid channels, and `in` covering `out` grown by (padX, padY).
inline int CheckNeighbourhood(const char* op, const Image* out, const Image* in, int64_t padX,
                              int64_t padY) {
    // The message is made only when there is an error to report.
    const auto fail = [op](int code, const char* what) {
        return SetError(code, std::string(op) + ": " + what);
    };
    if (!out || !in) return fail(ERROR_NULL_IMAGE, "null image");
    if (out->channels != in->channels)
        return fail(ERROR_INVALID_CHANNEL_MASK, "input and output channels differ");
    if (!IsChannelMaskValid(out->channels))
        return fail(ERROR_INVALID_CHANNEL_MASK, "invalid channel mask");
    if (in->x1 > out->x1 - padX || in->x2 < out->x2 + padX || in->y1 > out->y1 - padY ||
        in->y2 < out->y2 + padY)
        return fail(ERROR_OUT_OF_BOUNDS,
                    "the input does not cover the output grown by the operator's reach");
    return ERROR_NONE;
}

// Checks a second image read at one channel over `out` grown by the
// paddings; returns the channel's slot in `slot`.
inline int CheckControl(const char* op, const Image* out, const Image* control, uint64_t channel,
                        int64_t padX, int64_t padY, int& slot) {
    const auto fail = [op](int code, const std::string& what) {
        return SetError(code, std::string(op) + ": " + what);
    };
    if (!control) return fail(ERROR_NULL_IMAGE, "null control image");
    slot = GetChannelIndex(control->channels, channel);
    if (slot < 0)
        return fail(ERROR_INVALID_CHANNEL_MASK,
                    "the control image lacks channel " + GetChannelMaskName(channel));
    if (control->x1 > out->x1 - padX || control->x2 < out->x2 + padX ||
        control->y1 > out->y1 - padY || control->y2 < out->y2 + padY)
        return fail(ERROR_OUT_OF_BOUNDS, "the control image does not cover the output");
    return ERROR_NONE;
}

// The pixel reach of a length: whole pixels up to `reach` away (NaN and
// negative reach nothing).
inline int64_t ReachPixels(float reach) {
    return reach > 0.0f ? static_cast<int64_t>(std::ceil(std::min(reach, 1e9f))) : 0;
}

}  // namespace IMGLIB
