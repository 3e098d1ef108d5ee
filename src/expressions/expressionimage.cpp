#include "expressionimage.h"

#include <stdexcept>

#include "imglib/pixels.h"

namespace TESSERA {
namespace expressions {

Image::Image(const IMGLIB::Image* image)
    : m_image(image),
      m_left(static_cast<int32_t>(image->x1)),
      m_bottom(static_cast<int32_t>(image->y1)),
      m_right(static_cast<int32_t>(image->x2)),
      m_top(static_cast<int32_t>(image->y2)) {}

Image::Image(int left, int bottom, int right, int top, const Color4& color)
    : m_background(color), m_left(left), m_bottom(bottom), m_right(right), m_top(top) {}

bool Image::isPixelValid(int x, int y) const {
    return m_image && inBounds(x, y);
}

Color4 Image::getPixel(int x, int y) const {
    if (!inBounds(x, y))
        throw std::runtime_error("Out of bounds access error, you maybe want the padding.");
    if (!m_image) return m_background;
    float rgba[4] = {0, 0, 0, 0};
    IMGLIB::GetPixel(m_image, x, y, rgba);
    return Color4(rgba[0], rgba[1], rgba[2], rgba[3]);
}

void Image::setPixel(int x, int y, const Color4& color) {
    if (!inBounds(x, y)) throw std::runtime_error("Out of bounds access error");
    if (!m_image) throw std::runtime_error("You can't set the color on a background image");
    const float rgba[4] = {color.r, color.g, color.b, color.a};
    IMGLIB::SetPixel(m_image, x, y, rgba);
}

}  // namespace expressions
}  // namespace TESSERA
