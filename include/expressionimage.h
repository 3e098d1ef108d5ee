/// @file
/// expressions::Image: per-pixel access for the host's expression language.
#pragma once

#include <cstdint>

#include "imglib/image.h"
#include "tessera_export.h"

namespace TESSERA {
namespace expressions {

/// A pixel's R, G, B and A, premultiplied.
struct TESSERA_API Color4 {
    float r = 0;  ///< red
    float g = 0;  ///< green
    float b = 0;  ///< blue
    float a = 0;  ///< alpha

    Color4() = default;
    /// The colour (r, g, b, a).
    Color4(float r, float g, float b, float a) : r(r), g(g), b(b), a(a) {}
    /// Equal in every channel, exactly.
    ///@{
    bool operator==(const Color4& o) const { return r == o.r && g == o.g && b == o.b && a == o.a; }
    bool operator!=(const Color4& o) const { return !(*this == o); }
    ///@}
};

/// A copyable read/write view of one image by integer coordinates: either a
/// wrapped IMGLIB image (not owned) or a constant-colour "background image"
/// with no pixels. Bounds: x in [left, right), y in [bottom, top); y points up.
/// Errors are std::runtime_error.
class TESSERA_API Image {
public:
    /// Empty bounds, no image: every access is out of bounds.
    Image() = default;
    /// Wraps image; its bounds are narrowed to 32 bits (truncated, not clamped).
    explicit Image(const IMGLIB::Image* image);
    /// A background image of one colour over the given bounds.
    Image(int left, int bottom, int right, int top, const Color4& color);

    /// Inside the bounds and backed by pixels (a background image has none).
    bool isPixelValid(int x, int y) const;
    /// The pixel's R, G, B, A (0 for channels the image lacks), or the
    /// background colour. Outside: "Out of bounds access error, you maybe want the padding."
    ///@{
    Color4 getPixel(int x, int y) const;
    Color4 operator()(int x, int y) const { return getPixel(x, y); }
    ///@}
    /// Outside: "Out of bounds access error"; on a background image:
    /// "You can't set the color on a background image".
    void setPixel(int x, int y, const Color4& color);

    /// The bounds, and their size.
    ///@{
    int left() const { return m_left; }
    int right() const { return m_right; }
    int bottom() const { return m_bottom; }
    int top() const { return m_top; }
    int width() const { return m_right - m_left; }
    int height() const { return m_top - m_bottom; }
    ///@}

private:
    bool inBounds(int x, int y) const {
        return x >= m_left && x < m_right && y >= m_bottom && y < m_top;
    }

    Color4 m_background;
    const IMGLIB::Image* m_image = nullptr;
    int32_t m_left = 0;
    int32_t m_bottom = 0;
    int32_t m_right = 0;
    int32_t m_top = 0;
};

}  // namespace expressions
}  // namespace TESSERA
