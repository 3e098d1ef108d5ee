#include "util/region.h"

#include <algorithm>
#include <ostream>

namespace UTIL {
namespace {

// a minus b as at most four disjoint rectangles: full-width bands above and
// below b, then the parts left and right of b within b's rows.
void subtractInto(const Rect& a, const Rect& b, std::vector<Rect>& out) {
    const Rect overlap = a.intersection(b);
    if (overlap.isNull()) {
        out.push_back(a);
        return;
    }
    if (a.ymin < overlap.ymin) out.emplace_back(a.xmin, a.ymin, a.xmax, overlap.ymin);
    if (overlap.ymax < a.ymax) out.emplace_back(a.xmin, overlap.ymax, a.xmax, a.ymax);
    if (a.xmin < overlap.xmin) out.emplace_back(a.xmin, overlap.ymin, overlap.xmin, overlap.ymax);
    if (overlap.xmax < a.xmax) out.emplace_back(overlap.xmax, overlap.ymin, a.xmax, overlap.ymax);
}

bool mergeable(const Rect& a, const Rect& b, Rect& merged) {
    if (a.ymin == b.ymin && a.ymax == b.ymax && (a.xmax == b.xmin || b.xmax == a.xmin)) {
        merged = Rect(std::min(a.xmin, b.xmin), a.ymin, std::max(a.xmax, b.xmax), a.ymax);
        return true;
    }
    if (a.xmin == b.xmin && a.xmax == b.xmax && (a.ymax == b.ymin || b.ymax == a.ymin)) {
        merged = Rect(a.xmin, std::min(a.ymin, b.ymin), a.xmax, std::max(a.ymax, b.ymax));
        return true;
    }
    return false;
}

}  // namespace

void Region::add(const Rect& r) {
    if (r.isNull()) return;
    std::vector<Rect> pieces{r};
    for (const Rect& held : m_rects) {
        std::vector<Rect> next;
        for (const Rect& piece : pieces) subtractInto(piece, held, next);
        pieces.swap(next);
        if (pieces.empty()) return;
    }
    m_rects.insert(m_rects.end(), pieces.begin(), pieces.end());
}

void Region::add(const Region& r) {
    for (const Rect& rect : r.m_rects) add(rect);
}

Region Region::intersection(const Rect& r) const {
    Region out;
    for (const Rect& held : m_rects) {
        const Rect overlap = held.intersection(r);
        if (!overlap.isNull()) out.m_rects.push_back(overlap);  // still disjoint
    }
    return out;
}

Region Region::intersection(const Region& other) const {
    Region out;
    for (const Rect& r : other.m_rects) {
        Region part = intersection(r);
        out.m_rects.insert(out.m_rects.end(), part.m_rects.begin(), part.m_rects.end());
    }
    return out;
}

Region Region::subtracted(const Rect& r) const {
    Region out;
    for (const Rect& held : m_rects) subtractInto(held, r, out.m_rects);
    return out;
}

Region Region::subtracted(const Region& other) const {
    Region rest = *this;
    for (const Rect& r : other.m_rects) {
        if (rest.isEmpty()) break;
        rest = rest.subtracted(r);
    }
    return rest;
}

Rect Region::boundingBox() const {
    Rect box;
    for (const Rect& r : m_rects) box = box.boundingBox(r);
    return box;
}

bool Region::contains(int64_t x, int64_t y) const {
    for (const Rect& r : m_rects)
        if (r.contains(x, y)) return true;
    return false;
}

bool Region::contains(const Rect& r) const {
    return r.isNull() || Region(r).subtracted(*this).isEmpty();
}

bool Region::intersects(const Rect& r) const {
    for (const Rect& held : m_rects)
        if (held.intersects(r)) return true;
    return false;
}

int64_t Region::area() const {
    int64_t total = 0;
    for (const Rect& r : m_rects) total += r.area();
    return total;
}

Region Region::grown(int64_t dx, int64_t dy) const {
    Region out;
    for (const Rect& r : m_rects) out.add(r.grown(dx, dy));
    return out;
}

Region Region::translated(int64_t dx, int64_t dy) const {
    Region out;
    for (const Rect& r : m_rects) out.m_rects.push_back(r.translated(dx, dy));
    return out;
}

void Region::simplify() {
    bool changed = true;
    while (changed) {
        changed = false;
        for (size_t i = 0; i < m_rects.size() && !changed; ++i) {
            for (size_t j = i + 1; j < m_rects.size(); ++j) {
                Rect merged;
                if (mergeable(m_rects[i], m_rects[j], merged)) {
                    m_rects[i] = merged;
                    m_rects.erase(m_rects.begin() + static_cast<std::ptrdiff_t>(j));
                    changed = true;
                    break;
                }
            }
        }
    }
}

bool Region::operator==(const Region& other) const {
    if (area() != other.area()) return false;
    for (const Rect& r : m_rects)
        if (!other.contains(r)) return false;
    return true;
}

std::ostream& operator<<(std::ostream& os, const Region& r) {
    os << '{';
    for (size_t i = 0; i < r.rects().size(); ++i) os << (i ? ", " : "") << r.rects()[i];
    return os << '}';
}

}  // namespace UTIL
