/// @file
/// The compositing operators: two-input, pixel-by-pixel tasks.
#pragma once

#include <string>

#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

/// a is the foreground (A), b the background (B): createCompositeTask with
/// COMPOSITE_OVER renders "a over b".
enum CompositeOp : int {
    COMPOSITE_ADD = 0,         ///< A + B
    COMPOSITE_ATOP = 1,        ///< A atop B
    COMPOSITE_AVERAGE = 2,     ///< (A + B) / 2
    COMPOSITE_DIFFERENCE = 3,  ///< |B - A|
    COMPOSITE_DIVIDE = 4,      ///< A / B
    COMPOSITE_EXCLUSION = 5,   ///< A + B - 2AB
    COMPOSITE_FROM = 6,        ///< B - A
    COMPOSITE_GEOMETRIC = 7,   ///< 2AB / (A + B)
    /// 8 is not an operator.
    COMPOSITE_HYPOTENUSE = 9,   ///< sqrt(A^2 + B^2)
    COMPOSITE_MAX = 10,         ///< max(A, B)
    COMPOSITE_OVER_PLAIN = 11,  ///< A over B, alphas used as they are
    COMPOSITE_MIN = 12,         ///< min(A, B)
    COMPOSITE_MULTIPLY = 13,    ///< A B
    COMPOSITE_IN = 14,          ///< A in B
    COMPOSITE_OUT = 15,         ///< A out B
    COMPOSITE_OVER = 16,        ///< A over B
    COMPOSITE_UNDER = 17,       ///< A under B
    COMPOSITE_SCREEN = 18,      ///< A + B - AB
    COMPOSITE_MINUS = 19,       ///< A - B
};

/// Builds the operator's task. extremaFlag goes to max and min (whole pixels
/// by luminance), alphaFlag to the Porter-Duff operators and screen (alphas
/// clamped to [0, 1]; screen takes the larger value above 1). cleanupClamp
/// wraps the result in a cleanup clamp NAME.clamp; a mix below 1 mixes the
/// result with b by that amount in a task NAME.Mix. Throws
/// "Couldn't create a composite task of the requested type." for 8 and for
/// values outside 0..19.
TESSERA_API TaskPtr createCompositeTask(const std::string& name, float sampleRate, CompositeOp op,
                                        bool extremaFlag, bool alphaFlag, bool cleanupClamp,
                                        float mix, TaskPtr a, TaskPtr b);

/// How two mattes combine.
enum class MatteOp { Max, Min, Multiply, Plus, Minus };

/// b's colour with its alpha and a's combined: max(a, b), min(a, b), a b,
/// a + b or a - b, clamped to [0, 1] on request.
TESSERA_API TaskPtr createMatteCombineTask(const std::string& name, float sampleRate, MatteOp op,
                                           bool clamp, TaskPtr a, TaskPtr b);

/// A difference key: a's colour, alpha 0 where a matches the clean plate b
/// and 1 where its largest RGB difference reaches `high` (linear from `low`).
TESSERA_API TaskPtr createDifferenceKeyTask(const std::string& name, float sampleRate, float low,
                                            float high, TaskPtr a, TaskPtr b);

/// Depth compositing: the pixel of smaller Z goes over the other (a pixel of
/// alpha 0 has no depth); with a softness above 0 the two blend across that
/// depth range. Both inputs must define Z (else std::invalid_argument naming
/// the task and the input).
TESSERA_API TaskPtr createZMergeTask(const std::string& name, float time, float softness, TaskPtr a,
                                     TaskPtr b);

/// first * (1 - amount) + second * amount.
TESSERA_API TaskPtr createMixTask(const std::string& name, float sampleRate, float amount,
                                  TaskPtr first, TaskPtr second);

}  // namespace TESSERA
