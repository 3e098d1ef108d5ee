/// @file
/// Procedural generators: source tasks without inputs. Each defines exactly
/// its area; outside it the task is its background colour (transparent
/// black). Colours are premultiplied. Pixel (x, y) is evaluated at its centre
/// (x + 0.5, y + 0.5).
#pragma once

#include <Imath/ImathColor.h>
#include <Imath/ImathVec.h>

#include <cstdint>
#include <string>

#include "rendertask.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace TESSERA {

using Color4f = Imath::Color4<float>;

/// One colour over the area.
TESSERA_API TaskPtr createConstantTask(const std::string& name, float time, const Color4f& color,
                                       const UTIL::Rect& area);
/// Squares of `size` pixels from the origin, `first` where floor(x / size) +
/// floor(y / size) is even.
TESSERA_API TaskPtr createCheckerboardTask(const std::string& name, float time,
                                           const Color4f& first, const Color4f& second, float size,
                                           const UTIL::Rect& area);
/// Eight vertical bars at 75%: white, yellow, cyan, green, magenta, red, blue,
/// black.
TESSERA_API TaskPtr createColorBarsTask(const std::string& name, float time,
                                        const UTIL::Rect& area);
/// From startColor at `start` to endColor at `end` along the line between
/// them, constant beyond the ends.
TESSERA_API TaskPtr createLinearRampTask(const std::string& name, float time,
                                         const Imath::V2f& start, const Color4f& startColor,
                                         const Imath::V2f& end, const Color4f& endColor,
                                         const UTIL::Rect& area);
/// From inner at `centre` to outer at `radius` and beyond.
TESSERA_API TaskPtr createRadialRampTask(const std::string& name, float time,
                                         const Imath::V2f& centre, float radius,
                                         const Color4f& inner, const Color4f& outer,
                                         const UTIL::Rect& area);
/// Lines `lineWidth` pixels wide every `spacing` pixels (from the origin) in
/// lineColor over fillColor.
TESSERA_API TaskPtr createLatticeTask(const std::string& name, float time, const Color4f& lineColor,
                                      const Color4f& fillColor, float spacing, float lineWidth,
                                      const UTIL::Rect& area);
/// Hue by angle about `centre`, saturation by distance up to `radius`, value
/// 1, alpha 1 inside the radius and 0 beyond.
TESSERA_API TaskPtr createHueWheelTask(const std::string& name, float time,
                                       const Imath::V2f& centre, float radius,
                                       const UTIL::Rect& area);
/// Fractal Perlin noise: octaves of `noise` at scale, scale / 2, ... weighted
/// 1, gain, gain^2 ..., normalised to [0, 1], mapping low to high.
TESSERA_API TaskPtr createPerlinNoiseTask(const std::string& name, float time, float scale,
                                          int octaves, float gain, uint32_t seed,
                                          const Color4f& low, const Color4f& high,
                                          const UTIL::Rect& area);
/// An independent uniform value per pixel (`randval`), mapping low to high.
/// Bilinear between four colours at the corner pixels of area.
///@{
TESSERA_API TaskPtr createFourCornerGradientTask(const std::string& name, float time,
                                                 const Color4f& topLeft, const Color4f& topRight,
                                                 const Color4f& bottomLeft,
                                                 const Color4f& bottomRight,
                                                 const UTIL::Rect& area);
enum class TextAlign { Left, Centre, Right };
///@}

/// Lines of text: what, in which font, how large, where.
struct TESSERA_API TextParams {
    std::string text;                   ///< UTF-8; "\n" starts a new line
    std::string font;                   ///< a font file; empty: defaultFont()
    float size = 48;                    ///< pixels per em
    Color4f color{1, 1, 1, 1};          ///< the glyphs' colour, times their coverage
    Imath::V2f position{10, 50};        ///< the first baseline's left end, centre or right end
    TextAlign align = TextAlign::Left;  ///< each line about position.x
    float lineSpacing = 1;              ///< baseline distance in the font's line heights
};

/// The font text uses when none is given (DejaVu Sans).
TESSERA_API const char* defaultFont();
/// The text, rasterised once when the task is made. Empty text or a size
/// outside 1 to 4096 throw InvalidParameterException, a font that cannot be
/// opened RenderTaskRenderingException, naming the task and what is wrong.
///@{
TESSERA_API TaskPtr createTextTask(const std::string& name, float time, const TextParams& params);
TESSERA_API TaskPtr createRandomNoiseTask(const std::string& name, float time, uint32_t seed,
                                          const Color4f& low, const Color4f& high,
                                          const UTIL::Rect& area);
///@}

}  // namespace TESSERA
