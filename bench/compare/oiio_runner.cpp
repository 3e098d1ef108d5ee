// The workloads through OpenImageIO's ImageBufAlgo: buffers wrapping the
// input memory, one algorithm per step (a separable blur as two 1-D
// convolutions), the result held in an ImageBuf.
#include <OpenImageIO/imagebufalgo.h>

#include <Imath/ImathMatrix.h>

#include <stdexcept>

#include "runners.h"

namespace compare {
namespace {

using OIIO::ImageBuf;
namespace IBA = OIIO::ImageBufAlgo;

class OiioRunner : public Runner {
public:
    std::string name() const override { return "OpenImageIO"; }
    void setThreads(int threads) override {
        m_threads = threads;
        OIIO::attribute("threads", threads);
    }
    void run(Workload workload, const Inputs& inputs, Picture&) override {
        const ImageBuf a = wrap(inputs.a), b = wrap(inputs.b);
        m_result = compose(workload, *this, a, b);
    }
    void fetch(Picture& out) override {
        m_result.get_pixels(OIIO::ROI(int(out.x0), int(out.x0 + out.width), int(out.y0),
                                      int(out.y0 + out.height), 0, 1, 0, 4),
                            OIIO::TypeDesc::FLOAT, out.pixels.data());
    }

    void clear() override { m_result.reset(); }

    // The workloads' steps (blur as two 1-D convolutions).
    static ImageBuf wrap(const Picture& picture) {
        const OIIO::ImageSpec spec(int(picture.width), int(picture.height), 4,
                                   OIIO::TypeDesc::FLOAT);
        return ImageBuf(spec, const_cast<float*>(picture.pixels.data()));
    }
    static ImageBuf check(ImageBuf image) {
        if (image.has_error()) throw std::runtime_error("OpenImageIO: " + image.geterror());
        return image;
    }
    ImageBuf grade(const ImageBuf& in, size_t steps) const {
        ImageBuf t = in;
        for (size_t i = 0; i < steps; ++i) {
            const float v = kColourChain[i].value;
            switch (kColourChain[i].step) {
                case Step::Multiply:
                    t = check(IBA::mul(t, {v, v, v, 1.0f}, {}, m_threads));
                    break;
                case Step::Add:
                    t = check(IBA::add(t, {v, v, v, 0.0f}, {}, m_threads));
                    break;
                case Step::Power:
                    t = check(IBA::pow(t, {v, v, v, 1.0f}, {}, m_threads));
                    break;
            }
        }
        return t;
    }
    ImageBuf blur(const ImageBuf& in, double sigma) const {
        const float width = float(4 * sigma);
        const ImageBuf kx = IBA::make_kernel("gaussian", width, 1.0f);
        const ImageBuf ky = IBA::make_kernel("gaussian", 1.0f, width);
        return check(IBA::convolve(check(IBA::convolve(in, kx, true, {}, m_threads)), ky, true, {},
                                   m_threads));
    }
    ImageBuf resize(const ImageBuf& in, Filter filter) const {
        const OIIO::ROI& roi = in.roi();
        return check(IBA::resize(in, filter == Filter::Lanczos3 ? "lanczos3" : "catmull-rom", 0.0f,
                                 OIIO::ROI(0, roi.width() / 2, 0, roi.height() / 2), m_threads));
    }
    ImageBuf flip(const ImageBuf& in) const { return check(IBA::flip(in, {}, m_threads)); }
    ImageBuf crop(const ImageBuf& in) const {
        const OIIO::ROI& roi = in.roi();
        return check(IBA::crop(in,
                               OIIO::ROI(int(kCropX), int(kCropX) + roi.width() / 2, int(kCropY),
                                         int(kCropY) + roi.height() / 2),
                               m_threads));
    }
    ImageBuf over(const ImageBuf& a, const ImageBuf& b) const {
        return check(IBA::over(a, b, {}, m_threads));
    }
    ImageBuf rotate(const ImageBuf& in) const {
        const OIIO::ROI& roi = in.roi();
        const std::array<double, 6> m = rotationMatrix(roi.width(), roi.height());
        const Imath::M33f matrix{float(m[0]), float(m[3]), 0, float(m[1]), float(m[4]), 0,
                                 float(m[2]), float(m[5]), 1};
        return check(
            IBA::warp(in, matrix, "catmull-rom", 0.0f, false, ImageBuf::WrapBlack, roi, m_threads));
    }

    ImageBuf perspective(const ImageBuf& in) const {
        const OIIO::ROI& roi = in.roi();
        const std::array<float, 9> c = perspectiveColumns(roi.width(), roi.height());
        const Imath::M33f matrix(reinterpret_cast<const float(*)[3]>(c.data()));
        return check(
            IBA::warp(in, matrix, "catmull-rom", 0.0f, false, ImageBuf::WrapBlack, roi, m_threads));
    }

private:
    int m_threads = 1;
    ImageBuf m_result;
};

}  // namespace

std::unique_ptr<Runner> makeOiioRunner() {
    return std::make_unique<OiioRunner>();
}

}  // namespace compare
