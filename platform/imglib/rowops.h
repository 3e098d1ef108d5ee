// Row primitives of the neighbourhood operators, vectorized for the best
// instruction set of the machine (chosen at run time).
#pragma once

#include <cstddef>
#include <cstdint>

namespace IMGLIB {

// dst[i] += w src[i]
void RowMulAdd(float* dst, const float* src, float w, size_t count);
// dst[i] = extreme(dst[i], a[i], b[i]): the maximum when dilating, else the
// minimum.
void RowExtreme(float* dst, const float* a, const float* b, size_t count, bool dilate);

// dst[i] = the median of rows[0][i] .. rows[8][i], by a network of 19
// compare-exchanges. The rows must hold no NaN.
void RowMedian9(float* dst, const float* const rows[9], size_t count);
// acc[i] += hi[i] - lo[i] (differences of running sums, in double)
void RowAddDifference(double* acc, const double* hi, const double* lo, size_t count);
// acc[i] += w src[i], the floats widened to double
void RowMulAddWiden(double* acc, const float* src, float w, size_t count);
// IEEE half-precision bits to and from floats (to the nearest, ties to
// even): halves widen exactly, so a half narrowed from one comes back equal.
void RowFloatToHalf(uint16_t* dst, const float* src, size_t count);
void RowHalfToFloat(float* dst, const uint16_t* src, size_t count);
// Pixels of n channels from n rows, one per channel:
// dst[i n + k] = planes[k][i].
void RowInterleave(float* dst, const float* const* planes, size_t n, size_t count);

// dst[i] = the sum over t < taps of w[t] rows[t][i], summed in that order.
void RowWeightedSum(float* dst, const float* const* rows, const float* w, size_t taps,
                    size_t count);
// Pixels of n channels filtered along a row: dst pixel i is the sum over
// t < taps of w[i taps + t] times the pixel first[i] + t, src being the
// pixel at `origin`.
void RowResample(float* dst, const float* src, int64_t origin, const int64_t* first, const float* w,
                 size_t taps, size_t count, size_t n);
// dst[i] = src[i], stored past the caches (the rows must not overlap): for a
// destination too large to stay in them, whose lines would otherwise be
// read in only to be overwritten. The stores are visible to other threads
// when it returns.
void RowStream(float* dst, const float* src, size_t count);

}  // namespace IMGLIB
