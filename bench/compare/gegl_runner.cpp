// The workloads through GEGL's C API: buffers wrapping the input memory,
// a graph of operations per run, blitted into the output memory.
#include <gegl.h>

#include <array>
#include <stdexcept>
#include <string>

#include "runners.h"

namespace compare {
namespace {

// GEGL's enums as its operations define them.
constexpr int kAbyssClamp = 1;    // GeglAbyssPolicy: repeat the edge pixel
constexpr int kSamplerCubic = 2;  // GeglSamplerType

const Babl* premultiplied() {
    return babl_format("RaGaBaA float");
}

GeglBuffer* wrap(const Picture& picture) {
    const GeglRectangle extent = {0, 0, int(picture.width), int(picture.height)};
    return gegl_buffer_linear_new_from_data(const_cast<float*>(picture.pixels.data()),
                                            premultiplied(), &extent, int(picture.rowBytes()),
                                            nullptr, nullptr);
}

// The workloads' steps as operations of `graph`.
struct Steps {
    GeglNode* graph;
    int64_t width, height;

    static GeglNode* then(GeglNode* input, GeglNode* node) {
        if (!node) throw std::runtime_error("GEGL: an operation is missing");
        gegl_node_link(input, node);
        return node;
    }
    GeglNode* grade(GeglNode* in, size_t steps) const {
        static const char* const kOperations[] = {"gegl:multiply", "gegl:add", "gegl:gamma"};
        for (size_t i = 0; i < steps; ++i)
            in = then(
                in, gegl_node_new_child(graph, "operation", kOperations[int(kColourChain[i].step)],
                                        "value", double(kColourChain[i].value), nullptr));
        return in;
    }
    GeglNode* blur(GeglNode* in, double sigma) const {
        return then(
            in, gegl_node_new_child(graph, "operation", "gegl:gaussian-blur", "std-dev-x", sigma,
                                    "std-dev-y", sigma, "abyss-policy", kAbyssClamp, nullptr));
    }
    GeglNode* rotate(GeglNode* in) const {
        // Two transform operations in a row are resampled once, by their
        // product. GEGL turns positive degrees counter-clockwise.
        const double cx = double(width) / 2, cy = double(height) / 2;
        GeglNode* scaled =
            then(in, gegl_node_new_child(graph, "operation", "gegl:scale-ratio", "x", kRotateScale,
                                         "y", kRotateScale, "origin-x", cx, "origin-y", cy,
                                         "sampler", kSamplerCubic, nullptr));
        return then(scaled, gegl_node_new_child(graph, "operation", "gegl:rotate", "degrees",
                                                -kRotateDegrees, "origin-x", cx, "origin-y", cy,
                                                "sampler", kSamplerCubic, nullptr));
    }
    GeglNode* perspective(GeglNode* in) const {
        std::string matrix = "matrix(";
        for (float c : perspectiveColumns(double(width), double(height)))
            matrix += std::to_string(c) + ",";
        matrix.back() = ')';
        return then(in, gegl_node_new_child(graph, "operation", "gegl:transform", "transform",
                                            matrix.c_str(), "sampler", kSamplerCubic, nullptr));
    }
    // Not run (see GeglRunner::runs).
    GeglNode* resize(GeglNode* in, Filter) const { return in; }
    GeglNode* flip(GeglNode* in) const { return in; }
    GeglNode* crop(GeglNode* in) const { return in; }
    GeglNode* over(GeglNode* a, GeglNode* b) const {
        GeglNode* node = gegl_node_new_child(graph, "operation", "gegl:over", nullptr);
        gegl_node_connect_to(a, "output", node, "aux");
        return then(b, node);
    }
};

class GeglRunner : public Runner {
public:
    GeglRunner() {
        gegl_init(nullptr, nullptr);
        g_object_set(gegl_config(), "use-opencl", FALSE, nullptr);
    }
    ~GeglRunner() override { gegl_exit(); }
    std::string name() const override { return "GEGL"; }
    void setThreads(int threads) override {
        g_object_set(gegl_config(), "threads", threads, nullptr);
    }
    // GEGL's scalers have no lanczos or Catmull-Rom filter to compare with,
    // and it has no exact flip or crop that keeps the frame: those geometry
    // workloads are left to the others.
    bool runs(Workload workload) const override {
        return workload < Workload::ResizeLanczos || workload == Workload::Perspective;
    }
    void run(Workload workload, const Inputs& inputs, Picture& out) override {
        GeglNode* graph = gegl_node_new();
        GeglBuffer* bufferA = wrap(inputs.a);
        GeglBuffer* bufferB = wrap(inputs.b);
        GeglNode* a = gegl_node_new_child(graph, "operation", "gegl:buffer-source", "buffer",
                                          bufferA, nullptr);
        GeglNode* b = gegl_node_new_child(graph, "operation", "gegl:buffer-source", "buffer",
                                          bufferB, nullptr);
        Steps steps{graph, inputs.b.width, inputs.b.height};
        GeglNode* result = compose(workload, steps, a, b);
        const GeglRectangle roi = {0, 0, int(out.width), int(out.height)};
        gegl_node_blit(result, 1.0, &roi, premultiplied(), out.pixels.data(), int(out.rowBytes()),
                       GEGL_BLIT_DEFAULT);
        g_object_unref(graph);
        g_object_unref(bufferA);
        g_object_unref(bufferB);
    }
};

}  // namespace

std::unique_ptr<Runner> makeGeglRunner() {
    return std::make_unique<GeglRunner>();
}

}  // namespace compare
