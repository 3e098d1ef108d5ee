/// @file
/// IMGLIB::Image: the raw image record every pixel operator takes.
#pragma once

#include <cstdint>

namespace IMGLIB {

/// Channel bits. Channels are stored interleaved, 32-bit float each, in
/// ascending bit order of the mask.
enum Channel : uint64_t {
    CHANNEL_R = 1u << 0,
    CHANNEL_G = 1u << 1,
    CHANNEL_B = 1u << 2,
    CHANNEL_A = 1u << 3,
    CHANNEL_Z = 1u << 4,  ///< depth
    CHANNEL_U = 1u << 5,  ///< motion vector, x
    CHANNEL_V = 1u << 6,  ///< motion vector, y
};

constexpr uint64_t CHANNELS_RGB = CHANNEL_R | CHANNEL_G | CHANNEL_B;  ///< colour
constexpr uint64_t CHANNELS_RGBA = CHANNELS_RGB | CHANNEL_A;          ///< colour and alpha
/// Bits 0 to 6 are the channels above; every other bit is a named channel
/// ("diffuse.R", "forward.u", "mask") that takes its bit from the registry
/// of channel names (channels.h) when first named.
///@{
constexpr int NUM_FIXED_CHANNELS = 7;
constexpr int MAX_CHANNELS = 64;
///@}

/// How pixels outside an image's data are made up.
enum ExtendMethod : int {
    EXTEND_BACKGROUND = 0,  ///< the background colour
    EXTEND_CLAMP = 1,       ///< repeat the edge pixel
    EXTEND_MIRROR = 2,      ///< reflect about the edge
};

/// Bounds are half-open: x1 <= x < x2, y1 <= y < y2. Pixel (x, y) starts at
/// pixelPtr + (y - y1) * rowBytes + (x - x1) * pixelBytes. The record does not
/// own its pixels.
struct Image {
    uint64_t channels = 0;     ///< channel bits; a pixel holds one float per bit, in bit order
    int64_t x1 = 0;            ///< first column
    int64_t y1 = 0;            ///< first row
    int64_t x2 = 0;            ///< past the last column
    int64_t y2 = 0;            ///< past the last row
    int64_t rowBytes = 0;      ///< from one row to the next
    void* pixelPtr = nullptr;  ///< pixel (x1, y1)

    int64_t width() const { return x2 > x1 ? x2 - x1 : 0; }   ///< columns
    int64_t height() const { return y2 > y1 ? y2 - y1 : 0; }  ///< rows
    /// First pixel of row y.
    float* row(int64_t y) const {
        return reinterpret_cast<float*>(static_cast<unsigned char*>(pixelPtr) +
                                        (y - y1) * rowBytes);
    }
};

/// A record for one RGBA pixel at (0, 0) held in rgba[4]: how the colour
/// forms of operators run the image arithmetic on a single colour.
inline Image SinglePixelImage(float* rgba) {
    Image image;
    image.channels = CHANNELS_RGBA;
    image.x2 = 1;
    image.y2 = 1;
    image.rowBytes = 16;
    image.pixelPtr = rgba;
    return image;
}

}  // namespace IMGLIB
