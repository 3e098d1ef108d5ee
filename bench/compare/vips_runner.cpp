// The workloads through libvips' C API: images wrapping the input memory,
// one operation per step, the result written to memory.
#include <vips/vips.h>

#include <cstring>
#include <stdexcept>
#include <vector>

#include "runners.h"

namespace compare {
namespace {

// Every image made during a run, released at its end.
class Images {
public:
    ~Images() {
        for (VipsImage* image : m_images) g_object_unref(image);
    }
    // Runs `operation`, which makes one image, and keeps that image.
    template <class Operation>
    VipsImage* make(Operation operation) {
        VipsImage* image = nullptr;
        if (operation(&image) != 0 || !image)
            throw std::runtime_error(std::string("libvips: ") + vips_error_buffer());
        m_images.push_back(image);
        return image;
    }

private:
    std::vector<VipsImage*> m_images;
};

VipsImage* wrap(Images& images, const Picture& picture) {
    VipsImage* image = images.make([&](VipsImage** out) {
        *out =
            vips_image_new_from_memory(picture.pixels.data(), picture.bytes(), int(picture.width),
                                       int(picture.height), 4, VIPS_FORMAT_FLOAT);
        return 0;
    });
    // Linear light, no colour conversion on the way.
    image->Type = VIPS_INTERPRETATION_scRGB;
    return image;
}

// The workloads' steps as libvips operations, their images kept in `images`.
struct Steps {
    Images& images;
    int64_t width, height;

    VipsImage* grade(VipsImage* in, size_t steps) {
        for (size_t i = 0; i < steps; ++i) {
            const double v = kColourChain[i].value;
            const bool add = kColourChain[i].step == Step::Add;
            double scale[4] = {add ? 1 : v, add ? 1 : v, add ? 1 : v, 1};
            double offset[4] = {add ? v : 0, add ? v : 0, add ? v : 0, 0};
            if (kColourChain[i].step == Step::Power)
                in = images.make([&](VipsImage** out) {
                    return vips_math2_const(in, out, VIPS_OPERATION_MATH2_POW, scale, 4, nullptr);
                });
            else
                in = images.make([&](VipsImage** out) {
                    return vips_linear(in, out, scale, offset, 4, nullptr);
                });
        }
        return in;
    }

    VipsImage* blur(VipsImage* in, double sigma) {
        // min_ampl e^-2: the kernel reaches 2 sigma either side, as the others'.
        return images.make([&](VipsImage** out) {
            return vips_gaussblur(in, out, sigma, "min_ampl", 0.1353, "precision",
                                  VIPS_PRECISION_FLOAT, nullptr);
        });
    }

    VipsImage* rotate(VipsImage* in) {
        const std::array<double, 6> m = rotationMatrix(double(width), double(height));
        VipsInterpolate* bicubic = vips_interpolate_new("bicubic");
        VipsArrayInt* area = vips_array_int_newv(4, 0, 0, int(width), int(height));
        // libvips maps pixel corners; a half-pixel shift either side makes it
        // map centres like the others.
        VipsImage* result = images.make([&](VipsImage** out) {
            return vips_affine(in, out, m[0], m[1], m[3], m[4], "interpolate", bicubic, "oarea",
                               area, "odx", m[2] + 0.5 * (m[0] + m[1]) - 0.5, "ody",
                               m[5] + 0.5 * (m[3] + m[4]) - 0.5, nullptr);
        });
        vips_area_unref(VIPS_AREA(area));
        g_object_unref(bicubic);
        return result;
    }

    // Alpha times k, colour as it is.
    VipsImage* scaleAlpha(VipsImage* in, double k) {
        double scale[4] = {1, 1, 1, k}, offset[4] = {0, 0, 0, 0};
        return images.make(
            [&](VipsImage** out) { return vips_linear(in, out, scale, offset, 4, nullptr); });
    }

    VipsImage* resize(VipsImage* in, Filter filter) {
        return images.make([&](VipsImage** out) {
            return vips_resize(
                in, out, 0.5, "kernel",
                filter == Filter::Lanczos3 ? VIPS_KERNEL_LANCZOS3 : VIPS_KERNEL_CUBIC, nullptr);
        });
    }
    VipsImage* flip(VipsImage* in) {
        return images.make(
            [&](VipsImage** out) { return vips_flip(in, out, VIPS_DIRECTION_VERTICAL, nullptr); });
    }
    VipsImage* crop(VipsImage* in) {
        return images.make([&](VipsImage** out) {
            return vips_crop(in, out, int(kCropX), int(kCropY), int(width / 2), int(height / 2),
                             nullptr);
        });
    }

    VipsImage* over(VipsImage* a, VipsImage* b) {
        // libvips before 8.15 takes the alpha of scRGB images as 0 to 255: the
        // alphas are scaled to that range around the composite.
        VipsImage* a255 = scaleAlpha(a, 255.0);
        VipsImage* b255 = scaleAlpha(b, 255.0);
        VipsImage* result = images.make([&](VipsImage** out) {
            return vips_composite2(b255, a255, out, VIPS_BLEND_MODE_OVER, "premultiplied", TRUE,
                                   "compositing_space", VIPS_INTERPRETATION_scRGB, nullptr);
        });
        return scaleAlpha(result, 1.0 / 255.0);
    }
    // Not run (see VipsRunner::runs).
    VipsImage* perspective(VipsImage* in) { return in; }
};

class VipsRunner : public Runner {
public:
    VipsRunner() {
        if (VIPS_INIT("tessera-compare")) throw std::runtime_error("libvips did not start");
        vips_cache_set_max(0);  // each run computes, none is served from the cache
    }
    std::string name() const override { return "libvips"; }
    // libvips has no projective transform: vips_mapim resamples through an
    // index image the caller computes.
    bool runs(Workload workload) const override { return workload != Workload::Perspective; }
    void setThreads(int threads) override { vips_concurrency_set(threads); }
    void run(Workload workload, const Inputs& inputs, Picture& out) override {
        Images images;
        VipsImage* a = wrap(images, inputs.a);
        VipsImage* b = wrap(images, inputs.b);
        Steps steps{images, inputs.b.width, inputs.b.height};
        VipsImage* result = compose(workload, steps, a, b);
        clear();
        m_result = vips_image_write_to_memory(result, &m_size);
        if (!m_result || m_size != out.bytes())
            throw std::runtime_error(
                "libvips: " + std::to_string(m_size) + " bytes, " +
                std::to_string(vips_image_get_bands(result)) + " bands, format " +
                std::to_string(vips_image_get_format(result)) + ": " + vips_error_buffer());
    }
    void fetch(Picture& out) override { std::memcpy(out.pixels.data(), m_result, m_size); }
    void clear() override {
        g_free(m_result);
        m_result = nullptr;
    }
    ~VipsRunner() override { clear(); }

private:
    void* m_result = nullptr;
    size_t m_size = 0;
};

}  // namespace

std::unique_ptr<Runner> makeVipsRunner() {
    return std::make_unique<VipsRunner>();
}

}  // namespace compare
