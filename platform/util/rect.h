/// @file
/// UTIL::Rect: a half-open integer pixel rectangle.
#pragma once

#include <cstdint>
#include <iosfwd>

#include "../tessera_export.h"

namespace UTIL {

/// Pixels x with xmin <= x < xmax and y with ymin <= y < ymax. A rectangle with
/// xmin >= xmax or ymin >= ymax is null (empty); all null rectangles hold the
/// same (no) pixels, so operations treat them alike whatever their coordinates.
class TESSERA_API Rect {
public:
    /// The extent the whole system treats as "infinite".
    static constexpr int64_t INFINITE_EXTENT = 1000000;

    Rect() = default;
    /// The pixels xmin <= x < xmax, ymin <= y < ymax.
    Rect(int64_t xmin, int64_t ymin, int64_t xmax, int64_t ymax)
        : xmin(xmin), ymin(ymin), xmax(xmax), ymax(ymax) {}

    /// [-1000000, -1000000, 1000000, 1000000).
    static Rect infinite();

    bool isNull() const { return xmin >= xmax || ymin >= ymax; }   ///< holds no pixel
    int64_t width() const { return isNull() ? 0 : xmax - xmin; }   ///< columns (0 when null)
    int64_t height() const { return isNull() ? 0 : ymax - ymin; }  ///< rows (0 when null)
    int64_t area() const { return width() * height(); }            ///< pixels

    /// Pixel (x, y) is inside.
    bool contains(int64_t x, int64_t y) const {
        return x >= xmin && x < xmax && y >= ymin && y < ymax;
    }
    /// Every pixel of r is in this rectangle; a null r is contained in anything.
    ///@{
    bool contains(const Rect& r) const;
    bool intersects(const Rect& r) const { return !intersection(r).isNull(); }
    ///@}

    /// The common pixels; null when there are none.
    Rect intersection(const Rect& r) const;
    /// The smallest rectangle holding both; a null operand is ignored.
    Rect boundingBox(const Rect& r) const;
    /// Grown by dx on the left and right and dy at the top and bottom (negative
    /// values shrink). A null rectangle stays null.
    ///@{
    Rect grown(int64_t dx, int64_t dy) const;
    Rect grown(int64_t left, int64_t bottom, int64_t right, int64_t top) const;
    Rect translated(int64_t dx, int64_t dy) const;
    ///@}

    /// Null rectangles compare equal to each other.
    ///@{
    bool operator==(const Rect& r) const;
    bool operator!=(const Rect& r) const { return !(*this == r); }
    ///@}

    int64_t xmin = 0;  ///< first column
    int64_t ymin = 0;  ///< first row
    int64_t xmax = 0;  ///< past the last column
    int64_t ymax = 0;  ///< past the last row
};

/// "[xmin, ymin, xmax, ymax)", or "[null]" for a null rectangle.
TESSERA_API std::ostream& operator<<(std::ostream& os, const Rect& r);

}  // namespace UTIL
