/// @file
/// UTIL::Region: a set of pixels given as a list of rectangles.
#pragma once

#include <iosfwd>
#include <vector>

#include "rect.h"

namespace UTIL {

/// The region is the union of its rectangles. Rectangles added through add()
/// are clipped against what the region already holds, so the list stays
/// disjoint: every pixel is in exactly one rectangle and code that walks the
/// rectangles (to render them, say) visits each pixel once.
class TESSERA_API Region {
public:
    Region() = default;
    explicit Region(const Rect& r) { add(r); }  ///< the rectangle alone

    const std::vector<Rect>& rects() const { return m_rects; }  ///< disjoint, in no order
    size_t size() const { return m_rects.size(); }              ///< how many rectangles
    bool isEmpty() const { return m_rects.empty(); }            ///< holds no pixel
    void clear() { m_rects.clear(); }                           ///< holds nothing

    /// Union with r (null rectangles are ignored).
    ///@{
    void add(const Rect& r);
    void add(const Region& r);
    ///@}

    /// Pixels of this region inside r / inside other.
    ///@{
    Region intersection(const Rect& r) const;
    Region intersection(const Region& other) const;
    ///@}
    /// Pixels of this region not in r / not in other.
    ///@{
    Region subtracted(const Rect& r) const;
    Region subtracted(const Region& other) const;
    ///@}

    /// The smallest rectangle holding the region (null when empty).
    ///@{
    Rect boundingBox() const;
    bool contains(int64_t x, int64_t y) const;
    ///@}
    /// Every pixel of r is in the region (true for a null r).
    ///@{
    bool contains(const Rect& r) const;
    bool intersects(const Rect& r) const;
    int64_t area() const;
    ///@}

    /// Every rectangle grown by dx, dy (the result is kept disjoint).
    ///@{
    Region grown(int64_t dx, int64_t dy) const;
    Region translated(int64_t dx, int64_t dy) const;
    ///@}

    /// Merges neighbours that share a full edge, until none do. The set of
    /// pixels is unchanged; the list gets shorter.
    void simplify();

    /// Same set of pixels.
    ///@{
    bool operator==(const Region& other) const;
    bool operator!=(const Region& other) const { return !(*this == other); }
    ///@}

private:
    std::vector<Rect> m_rects;
};

/// "{[..), [..)}" with the rectangles in list order; "{}" when empty.
TESSERA_API std::ostream& operator<<(std::ostream& os, const Region& r);

}  // namespace UTIL
