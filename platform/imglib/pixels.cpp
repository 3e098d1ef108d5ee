#include "imglib/pixels.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/rowops.h"

namespace IMGLIB {
namespace {

constexpr uint64_t kRGBAChannels[4] = {CHANNEL_R, CHANNEL_G, CHANNEL_B, CHANNEL_A};

int checkImage(const Image* image, const char* op) {
    if (!image) return SetError(ERROR_NULL_IMAGE, std::string(op) + ": null image");
    if (!IsChannelMaskValid(image->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, std::string(op) + ": invalid channel mask " +
                                                        std::to_string(image->channels));
    if (!image->pixelPtr && image->width() > 0 && image->height() > 0 && image->channels != 0)
        return SetError(ERROR_NULL_IMAGE, std::string(op) + ": image has no pixel memory");
    return ERROR_NONE;
}

int checkPixel(const Image* image, int64_t x, int64_t y, const char* op) {
    if (int err = checkImage(image, op)) return err;
    if (x < image->x1 || x >= image->x2 || y < image->y1 || y >= image->y2)
        return SetError(ERROR_OUT_OF_BOUNDS, std::string(op) + ": pixel (" + std::to_string(x) +
                                                 ", " + std::to_string(y) +
                                                 ") is outside the image");
    return ERROR_NONE;
}

// Fills rows [y1, y2) x [x1, x2) of image with one pixel value.
void fillArea(const Image* image, int64_t x1, int64_t y1, int64_t x2, int64_t y2,
              const float* pixel) {
    if (x1 >= x2 || y1 >= y2) return;
    const int64_t pixelBytes = GetPixelBytes(image->channels);
    const size_t rowBytes = size_t(x2 - x1) * size_t(pixelBytes);
    // The first row by doubling what is written, then each row a copy of
    // it: a few large copies instead of a call per pixel.
    char* first = reinterpret_cast<char*>(GetPixelAddress(image, x1, y1, pixelBytes));
    std::memcpy(first, pixel, size_t(pixelBytes));
    for (size_t done = size_t(pixelBytes); done < rowBytes; done *= 2)
        std::memcpy(first + done, first, std::min(done, rowBytes - done));
    for (int64_t y = y1 + 1; y < y2; ++y)
        std::memcpy(GetPixelAddress(image, x1, y, pixelBytes), first, rowBytes);
}

}  // namespace

int GetPixel(const Image* image, int64_t x, int64_t y, float rgba[4]) {
    if (int err = checkPixel(image, x, y, "GetPixel")) return err;
    const float* p = GetPixelAddress(image, x, y, GetPixelBytes(image->channels));
    for (int c = 0; c < 4; ++c) {
        const int index = GetChannelIndex(image->channels, kRGBAChannels[c]);
        if (index >= 0) rgba[c] = p[index];
    }
    return ERROR_NONE;
}

int SetPixel(const Image* image, int64_t x, int64_t y, const float rgba[4]) {
    if (int err = checkPixel(image, x, y, "SetPixel")) return err;
    float* p = GetPixelAddress(image, x, y, GetPixelBytes(image->channels));
    for (int c = 0; c < 4; ++c) {
        const int index = GetChannelIndex(image->channels, kRGBAChannels[c]);
        if (index >= 0) p[index] = rgba[c];
    }
    return ERROR_NONE;
}

int Fill(const Image* image, const float rgba[4]) {
    if (int err = checkImage(image, "Fill")) return err;
    float pixel[MAX_CHANNELS] = {};
    for (int c = 0; c < 4; ++c) {
        const int index = GetChannelIndex(image->channels, kRGBAChannels[c]);
        if (index >= 0) pixel[index] = rgba[c];
    }
    fillArea(image, image->x1, image->y1, image->x2, image->y2, pixel);
    return ERROR_NONE;
}

int Clear(const Image* image) {
    if (int err = checkImage(image, "Clear")) return err;
    const size_t bytes = static_cast<size_t>(image->width() * GetPixelBytes(image->channels));
    for (int64_t y = image->y1; y < image->y2; ++y) std::memset(image->row(y), 0, bytes);
    return ERROR_NONE;
}

namespace {

// A destination larger than the caches (a host's whole frame, where tiles
// are copied as they finish) is written past them: its lines are not read
// in only to be overwritten, nor do they push out the tiles being made.
constexpr int64_t kStreamedBytes = int64_t(32) << 20;

// The bytes an image's rows span, [first, last).
std::pair<uintptr_t, uintptr_t> span(const Image* image) {
    const auto base = reinterpret_cast<uintptr_t>(image->pixelPtr);
    const int64_t toLastRow = (image->height() - 1) * image->rowBytes;
    const int64_t row = image->rowBytes < 0 ? -image->rowBytes : image->rowBytes;
    return {base + uintptr_t(std::min<int64_t>(0, toLastRow)),
            base + uintptr_t(std::max<int64_t>(0, toLastRow) + row)};
}

bool streamsInto(const Image* dst, const Image* src) {
    const auto [d1, d2] = span(dst);
    const auto [s1, s2] = span(src);
    return int64_t(d2 - d1) >= kStreamedBytes && (d2 <= s1 || s2 <= d1);
}

// The overlap of dst and src copied; dst's channels that src lacks become 0
// (zeroMissing) or keep their values.
int copyOverlap(const Image* dst, const Image* src, bool zeroMissing, const char* op) {
    if (int err = checkImage(dst, op)) return err;
    if (int err = checkImage(src, op)) return err;
    const int64_t x1 = std::max(dst->x1, src->x1), x2 = std::min(dst->x2, src->x2);
    const int64_t y1 = std::max(dst->y1, src->y1), y2 = std::min(dst->y2, src->y2);
    if (x1 >= x2 || y1 >= y2) return ERROR_NONE;
    const int64_t dstPixelBytes = GetPixelBytes(dst->channels);
    const int64_t srcPixelBytes = GetPixelBytes(src->channels);

    if (dst->channels == src->channels) {
        const size_t bytes = static_cast<size_t>((x2 - x1) * dstPixelBytes);
        if (streamsInto(dst, src)) {
            for (int64_t y = y1; y < y2; ++y)
                RowStream(GetPixelAddress(dst, x1, y, dstPixelBytes),
                          GetPixelAddress(src, x1, y, srcPixelBytes), bytes / sizeof(float));
            return ERROR_NONE;
        }
        for (int64_t y = y1; y < y2; ++y)
            std::memmove(GetPixelAddress(dst, x1, y, dstPixelBytes),
                         GetPixelAddress(src, x1, y, srcPixelBytes), bytes);
        return ERROR_NONE;
    }
    // Differing channel sets: map every destination channel to its source
    // slot once, then copy pixel by pixel.
    int sourceSlot[MAX_CHANNELS];
    int n = 0;
    for (int bit = 0; bit < MAX_CHANNELS; ++bit) {
        const uint64_t channel = uint64_t(1) << bit;
        if (dst->channels & channel) sourceSlot[n++] = GetChannelIndex(src->channels, channel);
    }
    const int srcStride = GetChannelCount(src->channels);
    for (int64_t y = y1; y < y2; ++y) {
        float* d = GetPixelAddress(dst, x1, y, dstPixelBytes);
        const float* s = GetPixelAddress(src, x1, y, srcPixelBytes);
        for (int64_t x = x1; x < x2; ++x, d += n, s += srcStride)
            for (int c = 0; c < n; ++c)
                if (sourceSlot[c] >= 0)
                    d[c] = s[sourceSlot[c]];
                else if (zeroMissing)
                    d[c] = 0.0f;
    }
    return ERROR_NONE;
}

}  // namespace

int CopyInto(const Image* dst, const Image* src) {
    return copyOverlap(dst, src, true, "CopyInto");
}

int CopyChannelsInto(const Image* dst, const Image* src) {
    return copyOverlap(dst, src, false, "CopyChannelsInto");
}

int Copy(const Image* dst, const Image* src) {
    if (int err = checkImage(dst, "Copy")) return err;
    if (int err = checkImage(src, "Copy")) return err;
    const float zero[MAX_CHANNELS] = {};
    const int64_t x1 = std::clamp(src->x1, dst->x1, dst->x2);
    const int64_t x2 = std::clamp(src->x2, x1, dst->x2);
    const int64_t y1 = std::clamp(src->y1, dst->y1, dst->y2);
    const int64_t y2 = std::clamp(src->y2, y1, dst->y2);
    // The frame around the overlap: rows above and below, then the sides.
    fillArea(dst, dst->x1, dst->y1, dst->x2, y1, zero);
    fillArea(dst, dst->x1, y2, dst->x2, dst->y2, zero);
    fillArea(dst, dst->x1, y1, x1, y2, zero);
    fillArea(dst, x2, y1, dst->x2, y2, zero);
    return CopyInto(dst, src);
}

int GetSubImage(const Image* src, int64_t x1, int64_t y1, int64_t x2, int64_t y2, Image* out) {
    if (int err = checkImage(src, "GetSubImage")) return err;
    if (!out) return SetError(ERROR_NULL_IMAGE, "GetSubImage: null output record");
    if (x1 < src->x1 || y1 < src->y1 || x2 > src->x2 || y2 > src->y2 || x1 > x2 || y1 > y2)
        return SetError(ERROR_OUT_OF_BOUNDS, "GetSubImage: [" + std::to_string(x1) + ", " +
                                                 std::to_string(y1) + ", " + std::to_string(x2) +
                                                 ", " + std::to_string(y2) +
                                                 ") is not inside the image");
    *out = *src;
    out->x1 = x1;
    out->y1 = y1;
    out->x2 = x2;
    out->y2 = y2;
    if (src->pixelPtr && x1 < x2 && y1 < y2)
        out->pixelPtr = GetPixelAddress(src, x1, y1, GetPixelBytes(src->channels));
    return ERROR_NONE;
}

}  // namespace IMGLIB
