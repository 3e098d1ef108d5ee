// IMGLIB resampling: images transformed by 3x3 matrices (Imath's row-vector
// convention: [x y 1] M = [x' y' w], the point (x'/w, y'/w)), with filtered
// reconstruction. Pixel centres are at +0.5. Output pixel p reads the input
// around q = p M^-1 through the primary kernel; where the transform
// minifies along an input axis (the input moves more than a pixel per
// output pixel), the secondary kernel is used instead, widened by that
// factor, so a 10x reduction averages every input pixel it covers.
#pragma once

#include <Imath/ImathColor.h>
#include <Imath/ImathMatrix.h>

#include <cstddef>
#include <vector>

#include "imglib/image.h"
#include "imglib/kernels.h"
#include "tessera_export.h"
#include "util/rect.h"

namespace IMGLIB {

// An operation prepared once and applied to many tiles (from several
// threads at once: apply only reads the object).
class TESSERA_API UnaryOperation {
public:
    virtual ~UnaryOperation();
    virtual int apply(const Image* out, const Image* in) const = 0;
};

// The output pixels a transform of the input pixels in `inputRect` can
// reach, kernels included.
TESSERA_API UTIL::Rect GetTransformedOutputRect(const Imath::Matrix33<float>& m, KernelType primary,
                                                KernelType secondary, const UTIL::Rect& inputRect);
// The input pixels the output pixels in `outputRect` read, given the inverse
// matrix: exactly enough for a tile to equal the same pixels rendered whole.
TESSERA_API UTIL::Rect GetRequiredTransformInputRect(const Imath::Matrix33<float>& inverse,
                                                     KernelType primary, KernelType secondary,
                                                     const UTIL::Rect& outputRect);
// Renders out from in through the forward matrix m; input pixels outside in
// are the background colour. A singular matrix is ERROR_INVALID_ARGUMENT.
TESSERA_API int ProjTransformImage(const Image* out, const Image* in,
                                   const Imath::Matrix33<float>& m, KernelType primary,
                                   KernelType secondary, const Imath::Color4<float>& background);
// The same for an affine matrix, with the kernel weights precomputed.
TESSERA_API UnaryOperation* createAffineTransformFunction(const UTIL::Rect& inputBounds,
                                                          const Imath::Matrix33<float>& m,
                                                          KernelType primary, KernelType secondary,
                                                          const Imath::Color4<float>& background);
// Motion blur: every output pixel is the average of the transforms by the
// matrices of one index set, the set chosen by the pixel's position (the same
// wherever the pixel is rendered). Singular matrices stand for identity.
TESSERA_API UnaryOperation* createMotionBlurTransformFunction(
    const std::vector<Imath::Matrix33<float>>& matrices,
    const std::vector<std::vector<size_t>>& indexSets, KernelType primary, KernelType secondary,
    const Imath::Color4<float>& background);

}  // namespace IMGLIB
