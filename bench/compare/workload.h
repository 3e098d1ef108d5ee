// The whole-pipeline workloads every library runs on the same inputs, and
// the interface each library's runner implements.
#pragma once

#include <array>
#include <string>

#include "picture.h"

namespace compare {

enum class Workload {
    ColourChain,
    Blur,
    Rotate,
    Over,
    Comp,
    ResizeLanczos,
    ResizeCubic,
    Flip,
    Crop,
    Perspective
};
constexpr std::array<Workload, 10> kWorkloads = {
    Workload::ColourChain, Workload::Blur,          Workload::Rotate,      Workload::Over,
    Workload::Comp,        Workload::ResizeLanczos, Workload::ResizeCubic, Workload::Flip,
    Workload::Crop,        Workload::Perspective};
const char* workloadName(Workload workload);
// Frames the workload must read and write (a frame being one input).
double framesMoved(Workload workload);
// Whether the workload is bound by memory traffic, not arithmetic.
bool memoryBound(Workload workload);

// The geometry workloads: resize to half size (1920x1080 from 3840x2160)
// with lanczos3 or a cubic (Catmull-Rom), edges clamped; flip top to
// bottom; crop to the centre quarter, which keeps its place.
enum class Filter { Lanczos3, Cubic };
constexpr int64_t kCropX = 960, kCropY = 540;
// The output's area for an input of width x height.
struct Area {
    int64_t x0, y0, width, height;
};
Area outputArea(Workload workload, int64_t width, int64_t height);

// The colour chain: multiply, add, power, repeated, ending on a multiply.
// Each step applies to R, G and B and leaves alpha as it is.
enum class Step { Multiply, Add, Power };
struct ColourStep {
    Step step;
    float value;
};
constexpr std::array<ColourStep, 10> kColourChain = {{{Step::Multiply, 1.1f},
                                                      {Step::Add, 0.01f},
                                                      {Step::Power, 0.9f},
                                                      {Step::Multiply, 0.95f},
                                                      {Step::Add, 0.005f},
                                                      {Step::Power, 1.1f},
                                                      {Step::Multiply, 1.02f},
                                                      {Step::Add, 0.002f},
                                                      {Step::Power, 0.98f},
                                                      {Step::Multiply, 1.01f}}};
// The full comp grades each input with the first three steps.
constexpr size_t kCompGradeSteps = 3;

// Gaussian blur: sigma 10 (a 41-tap kernel, "size 40" with sigma = size / 4),
// edges extended by repeating the edge pixel. The comp blurs with sigma 5.
constexpr double kBlurSigma = 10.0, kCompBlurSigma = 5.0;

// Rotation by 17 degrees and scale 0.9 about the frame's centre, bicubic
// (Catmull-Rom) filtering, the output over the input's frame, transparent
// black outside the source.
constexpr double kRotateDegrees = 17.0, kRotateScale = 0.9;
// x' = m[0] x + m[1] y + m[2], y' = m[3] x + m[4] y + m[5] (pixel centres at +0.5).
std::array<double, 6> rotationMatrix(double width, double height);

// A keystone: about the frame's centre, the homogeneous w grows by
// kTiltX across the width and kTiltY down the height, so the top of the
// frame is enlarged and the bottom shrunk, as a plate shot looking up.
// Catmull-Rom, the output over the input's frame, transparent black outside.
constexpr double kTiltX = 0.1, kTiltY = 0.3;
// x' = (m[0] x + m[1] y + m[2]) / w, y' = (m[3] x + m[4] y + m[5]) / w,
// w = m[6] x + m[7] y + m[8] (pixel centres at +0.5).
std::array<double, 9> perspectiveMatrix(double width, double height);
// Its coefficients column by column: Imath's row-vector layout, and the
// order gegl:transform reads them in.
std::array<float, 9> perspectiveColumns(double width, double height);

// The inputs; the full comp is rotate(grade(a)) over blur(grade(b)).
struct Inputs {
    const Picture& a;  // the foreground (soft alpha)
    const Picture& b;  // the background (opaque)
};

// A workload built from one library's steps: `steps` has grade(image,
// count), blur(image, sigma), rotate(image), over(a, b) and one step for
// each geometry workload.
template <class Steps, class Image>
Image compose(Workload workload, Steps& steps, Image a, Image b) {
    switch (workload) {
        case Workload::ColourChain:
            return steps.grade(b, kColourChain.size());
        case Workload::Blur:
            return steps.blur(b, kBlurSigma);
        case Workload::Rotate:
            return steps.rotate(b);
        case Workload::Over:
            return steps.over(a, b);
        case Workload::ResizeLanczos:
            return steps.resize(b, Filter::Lanczos3);
        case Workload::ResizeCubic:
            return steps.resize(b, Filter::Cubic);
        case Workload::Flip:
            return steps.flip(b);
        case Workload::Crop:
            return steps.crop(b);
        case Workload::Perspective:
            return steps.perspective(b);
        case Workload::Comp:
            break;
    }
    return steps.over(steps.rotate(steps.grade(a, kCompGradeSteps)),
                      steps.blur(steps.grade(b, kCompGradeSteps), kCompBlurSigma));
}

class Runner {
public:
    virtual ~Runner() = default;
    virtual std::string name() const = 0;
    virtual void setThreads(int threads) = 0;
    // Whether the library has the workload's operations.
    virtual bool runs(Workload) const { return true; }
    // One run of the workload, from `inputs` in memory to pixels in memory:
    // written to `out`, or held in the library's own image until fetch.
    virtual void run(Workload workload, const Inputs& inputs, Picture& out) = 0;
    // Copies a result the last run held into `out` (not timed).
    virtual void fetch(Picture& /*out*/) {}
    // Lets go of a result the last run held.
    virtual void clear() {}
};

}  // namespace compare
