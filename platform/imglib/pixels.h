/// @file
/// IMGLIB basic pixel access and whole-image operators.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../tessera_export.h"
#include "image.h"

namespace IMGLIB {

/// Reads pixel (x, y) into rgba[0..3]: R, G, B and A where the image holds
/// them; entries for channels it lacks are left as they were.
TESSERA_API int GetPixel(const Image* image, int64_t x, int64_t y, float rgba[4]);
/// Writes the R, G, B and A channels the image holds from rgba[0..3].
TESSERA_API int SetPixel(const Image* image, int64_t x, int64_t y, const float rgba[4]);
/// Address of pixel (x, y), which must lie inside the bounds.
inline float* GetPixelAddress(const Image* image, int64_t x, int64_t y, int64_t pixelBytes) {
    return reinterpret_cast<float*>(reinterpret_cast<unsigned char*>(image->row(y)) +
                                    (x - image->x1) * pixelBytes);
}

/// Pixel memory starts on a cache line, so that whole-vector loads from the
/// start of a row never straddle two lines.
constexpr size_t kPixelAlignment = 64;

/// A pointer into `buffer` (which has kPixelAlignment bytes to spare) that
/// starts on a cache line.
inline float* AlignPixels(float* buffer) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(buffer);
    return reinterpret_cast<float*>((address + kPixelAlignment - 1) & ~(kPixelAlignment - 1));
}

/// The row stride, in bytes, for rows of `width` pixels: padded to 16 bytes,
/// and one cache line more when that is a multiple of 4 KiB, because rows
/// 4 KiB apart share cache sets and a pass reading many rows at once (a
/// vertical filter) would evict its own rows.
inline int64_t GetPaddedRowBytes(int64_t width, int64_t pixelBytes, int64_t height) {
    const int64_t rowBytes = (width * pixelBytes + 15) & ~int64_t(15);
    return rowBytes % 4096 == 0 && height > 1 ? rowBytes + 64 : rowBytes;
}

/// Every pixel: R, G, B, A from rgba, every other channel 0.
TESSERA_API int Fill(const Image* image, const float rgba[4]);
/// Every channel of every pixel 0.
TESSERA_API int Clear(const Image* image);
/// Copies src into dst where their bounds overlap. A channel of dst that src
/// lacks becomes 0 there; pixels of dst outside src are left as they were.
TESSERA_API int CopyInto(const Image* dst, const Image* src);
/// As CopyInto, but channels of dst that src lacks keep their values.
TESSERA_API int CopyChannelsInto(const Image* dst, const Image* src);
/// As CopyInto, and every pixel of dst outside src becomes 0.
TESSERA_API int Copy(const Image* dst, const Image* src);
/// A record for the part [x1, x2) x [y1, y2) of src sharing its pixels; the
/// part must lie inside src.
TESSERA_API int GetSubImage(const Image* src, int64_t x1, int64_t y1, int64_t x2, int64_t y2,
                            Image* out);

}  // namespace IMGLIB
