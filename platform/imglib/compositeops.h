// IMGLIB two-input operators: compositing and blending of premultiplied
// images. Each takes (out, input 0, input 1, [flag], background 0,
// background 1); an input may be null, and outside an input's bounds its
// background colour stands for its pixels. docs/imglib.md gives every
// formula; in the Porter-Duff operators input 1 is the foreground A and
// input 0 the background B ("A over B").
//
// The operators work on R, G, B and A. A further channel of the output
// (depth, motion, auxiliary) is the foreground's where the foreground has
// that channel and its alpha is not 0, else the other input's where that
// one has the channel, else the foreground's, else 0: an input that lacks a
// channel never hides the other's.
#pragma once

#include <Imath/ImathColor.h>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

enum BinaryOpKind : int32_t {
    BINARYOP_ADD,
    BINARYOP_ATOP,
    BINARYOP_AVERAGE,
    BINARYOP_DIFFERENCE,
    BINARYOP_DIVIDE,
    BINARYOP_EXCLUSION,
    BINARYOP_SUBTRACT,
    BINARYOP_GEOMETRIC,
    BINARYOP_HYPOTENUSE,
    BINARYOP_MAX,
    BINARYOP_MIN,
    BINARYOP_MULTIPLY,
    BINARYOP_IN,
    BINARYOP_OUT,
    BINARYOP_OVER,
    BINARYOP_UNDER,
    BINARYOP_SCREEN,
    BINARYOP_MIX,
    // Input 0's colour with its alpha and input 1's combined (flag: clamped
    // to [0, 1]); minus is alpha 1 - alpha 0.
    BINARYOP_MATTE_MAX,
    BINARYOP_MATTE_MIN,
    BINARYOP_MATTE_MULTIPLY,
    BINARYOP_MATTE_PLUS,
    BINARYOP_MATTE_MINUS,
    // Input 1's colour, alpha from its largest RGB difference to input 0:
    // clamp((difference - low) / (high - low)) (a step at low when equal).
    BINARYOP_DIFFERENCE_KEY,
};

struct BinaryOp {
    BinaryOpKind kind = BINARYOP_ADD;
    bool flag = false;              // the operator's one option (see docs/imglib.md)
    float mix = 1.0f;               // BINARYOP_MIX: the weight of input 1
    int foreground = 1;             // the input whose extra channels win where it covers
    float low = 0.0f, high = 1.0f;  // BINARYOP_DIFFERENCE_KEY
};

TESSERA_API int ApplyBinaryOp(const Image* out, const Image* in0, const Image* in1,
                              const BinaryOp& op, const Imath::Color4<float>& bg0,
                              const Imath::Color4<float>& bg1);
// The operator on two colours (the same arithmetic as the images get).
TESSERA_API Imath::Color4<float> ApplyBinaryOpToColor(const BinaryOp& op,
                                                      const Imath::Color4<float>& c0,
                                                      const Imath::Color4<float>& c1);

// The operators by name.
#define IMGLIB_BINARY_OP(NAME)                                                 \
    TESSERA_API int NAME(const Image* out, const Image* in0, const Image* in1, \
                         const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1);
#define IMGLIB_FLAGGED_BINARY_OP(NAME)                                                    \
    TESSERA_API int NAME(const Image* out, const Image* in0, const Image* in1, bool flag, \
                         const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1);
IMGLIB_BINARY_OP(Add)
IMGLIB_FLAGGED_BINARY_OP(Atop)
IMGLIB_BINARY_OP(Average)
IMGLIB_BINARY_OP(Difference)
IMGLIB_BINARY_OP(Divide)
IMGLIB_BINARY_OP(Exclusion)
IMGLIB_BINARY_OP(Subtract)
IMGLIB_BINARY_OP(Geometric)
IMGLIB_BINARY_OP(Hypotenuse)
IMGLIB_FLAGGED_BINARY_OP(Max)
IMGLIB_FLAGGED_BINARY_OP(Min)
IMGLIB_BINARY_OP(Multiply)
IMGLIB_FLAGGED_BINARY_OP(In)
IMGLIB_FLAGGED_BINARY_OP(Out)
IMGLIB_FLAGGED_BINARY_OP(Over)
IMGLIB_FLAGGED_BINARY_OP(Under)
IMGLIB_FLAGGED_BINARY_OP(Screen)
#undef IMGLIB_BINARY_OP
#undef IMGLIB_FLAGGED_BINARY_OP
TESSERA_API int Mix(const Image* out, const Image* in0, const Image* in1, float amount,
                    const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1);

// out = in0 + (in1 - in0) x the alpha of mask, pixel by pixel: in0 and in1
// have out's channels and, like mask, cover out (out may be in1).
TESSERA_API int MixByMask(const Image* out, const Image* in0, const Image* in1, const Image* mask);

}  // namespace IMGLIB
