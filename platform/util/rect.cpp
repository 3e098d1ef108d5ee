#include "util/rect.h"

#include <algorithm>
#include <ostream>

namespace UTIL {

Rect Rect::infinite() {
    return Rect(-INFINITE_EXTENT, -INFINITE_EXTENT, INFINITE_EXTENT, INFINITE_EXTENT);
}

bool Rect::contains(const Rect& r) const {
    if (r.isNull()) return true;
    return !isNull() && r.xmin >= xmin && r.ymin >= ymin && r.xmax <= xmax && r.ymax <= ymax;
}

Rect Rect::intersection(const Rect& r) const {
    Rect out(std::max(xmin, r.xmin), std::max(ymin, r.ymin), std::min(xmax, r.xmax),
             std::min(ymax, r.ymax));
    return out.isNull() ? Rect() : out;
}

Rect Rect::boundingBox(const Rect& r) const {
    if (r.isNull()) return isNull() ? Rect() : *this;
    if (isNull()) return r;
    return Rect(std::min(xmin, r.xmin), std::min(ymin, r.ymin), std::max(xmax, r.xmax),
                std::max(ymax, r.ymax));
}

Rect Rect::grown(int64_t dx, int64_t dy) const {
    return grown(dx, dy, dx, dy);
}

Rect Rect::grown(int64_t left, int64_t bottom, int64_t right, int64_t top) const {
    if (isNull()) return Rect();
    Rect out(xmin - left, ymin - bottom, xmax + right, ymax + top);
    return out.isNull() ? Rect() : out;
}

Rect Rect::translated(int64_t dx, int64_t dy) const {
    return Rect(xmin + dx, ymin + dy, xmax + dx, ymax + dy);
}

bool Rect::operator==(const Rect& r) const {
    if (isNull() || r.isNull()) return isNull() && r.isNull();
    return xmin == r.xmin && ymin == r.ymin && xmax == r.xmax && ymax == r.ymax;
}

std::ostream& operator<<(std::ostream& os, const Rect& r) {
    if (r.isNull()) return os << "[null]";
    return os << '[' << r.xmin << ", " << r.ymin << ", " << r.xmax << ", " << r.ymax << ')';
}

}  // namespace UTIL
