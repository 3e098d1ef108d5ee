#include "imglib/edges.h"

#include <cmath>
#include <cstdlib>
#include <vector>

#include "imglib/neighbourhood.h"
#include "imglib/rowops.h"

namespace IMGLIB {

namespace {

// The gradient of every channel of every pixel of an area: its magnitude,
// and the neighbour across the edge (one of eight directions) as a step.
struct GradientField {
    // Directions are kept only when asked for (selection needs them).
    GradientField(int64_t x1, int64_t y1, int64_t width, int64_t height, int n, bool directions)
        : x1(x1),
          y1(y1),
          width(width),
          n(n),
          magnitude(static_cast<size_t>(width * height * n)),
          stepX(directions ? magnitude.size() : 0),
          stepY(stepX.size()) {}
    bool hasDirections() const { return !stepX.empty(); }
    size_t index(int64_t x, int64_t y, int c) const {
        return static_cast<size_t>(((y - y1) * width + (x - x1)) * n + c);
    }
    int64_t x1, y1, width;
    int n;
    std::vector<float> magnitude;
    std::vector<int8_t> stepX, stepY;
};

// The nearest of the eight neighbour directions to a direction (y down).
void quantize(float cosine, float sine, int8_t& stepX, int8_t& stepY) {
    constexpr float kSin22_5 = 0.38268343f;
    stepX = std::fabs(cosine) > kSin22_5 ? (cosine > 0 ? 1 : -1) : 0;
    stepY = std::fabs(sine) > kSin22_5 ? (sine > 0 ? 1 : -1) : 0;
}

struct Sobel {
    static constexpr int64_t kReach = 1;
    // A row at a time: smoothing across (v) and differencing down (d) the
    // three rows, then the same along the row; plain loops the compiler
    // vectorizes.
    static void field(const PixelGrid& g, GradientField& f, int64_t height) {
        const bool directions = f.hasDirections();
        const int n = f.n;
        const size_t span = static_cast<size_t>((f.width + 2) * n), count = f.width * n;
        std::vector<float> v(span), d(span), gx(count), gy(count);
        for (int64_t y = f.y1; y < f.y1 + height; ++y) {
            const float* up = g.at(f.x1 - 1, y - 1);
            const float* mid = g.at(f.x1 - 1, y);
            const float* down = g.at(f.x1 - 1, y + 1);
            for (size_t i = 0; i < span; ++i) {
                v[i] = up[i] + 2.0f * mid[i] + down[i];
                d[i] = down[i] - up[i];
            }
            float* m = f.magnitude.data() + f.index(f.x1, y, 0);
            for (size_t i = 0; i < count; ++i) {
                gx[i] = (v[i + 2 * n] - v[i]) * 0.25f;
                gy[i] = (d[i] + 2.0f * d[i + n] + d[i + 2 * n]) * 0.25f;
                m[i] = std::sqrt(gx[i] * gx[i] + gy[i] * gy[i]);
            }
            if (!directions) continue;
            const size_t at = f.index(f.x1, y, 0);
            for (size_t i = 0; i < count; ++i)
                if (m[i] > 0.0f)
                    quantize(gx[i] / m[i], gy[i] / m[i], f.stepX[at + i], f.stepY[at + i]);
        }
    }
};

// The Nevatia-Babu masks, rows top (y - 2) to bottom; the mask of k x 30
// degrees is positive towards the angle (counter-clockwise from +x, y up).
struct Babu {
    static constexpr int64_t kReach = 2;
    struct Masks {
        int m[6][5][5];
        Masks() {
            static const int k0[5] = {-100, -100, 0, 100, 100};
            static const int k30[5][5] = {{-100, 32, 100, 100, 100},
                                          {-100, -78, 92, 100, 100},
                                          {-100, -100, 0, 100, 100},
                                          {-100, -100, -92, 78, 100},
                                          {-100, -100, -100, -32, 100}};
            static const int k60[5][5] = {{100, 100, 100, 100, 100},
                                          {-32, 78, 100, 100, 100},
                                          {-100, -92, 0, 92, 100},
                                          {-100, -100, -100, -78, 32},
                                          {-100, -100, -100, -100, -100}};
            for (int r = 0; r < 5; ++r)
                for (int c = 0; c < 5; ++c) {
                    m[0][r][c] = k0[c];
                    m[1][r][c] = k30[r][c];
                    m[2][r][c] = k60[r][c];
                    m[3][r][c] = k0[4 - r];
                    m[4][r][c] = k60[r][4 - c];
                    m[5][r][c] = k30[r][4 - c];
                }
        }
    };
    // Each mask's response over a row as 25 row multiply-adds; then the
    // strongest mask per float.
    static void field(const PixelGrid& g, GradientField& f, int64_t height) {
        const bool directions = f.hasDirections();
        static const Masks masks;
        const int n = f.n;
        const size_t count = static_cast<size_t>(f.width * n);
        std::vector<float> response(count);
        for (int64_t y = f.y1; y < f.y1 + height; ++y) {
            float* m = f.magnitude.data() + f.index(f.x1, y, 0);
            const size_t at = f.index(f.x1, y, 0);
            std::fill(m, m + count, 0.0f);
            for (int k = 0; k < 6; ++k) {
                std::fill(response.begin(), response.end(), 0.0f);
                for (int r = 0; r < 5; ++r)
                    for (int c = 0; c < 5; ++c)
                        if (masks.m[k][r][c])
                            RowMulAdd(response.data(), g.at(f.x1 - 2 + c, y - 2 + r),
                                      float(masks.m[k][r][c]) * 1e-3f, count);
                int8_t sx = 0, sy = 0;
                if (directions) {
                    const float angle = float(k) * 0.52359878f;
                    quantize(std::cos(angle), -std::sin(angle), sx, sy);
                }
                for (size_t i = 0; i < count; ++i) {
                    const float strength = std::fabs(response[i]);
                    if (!(strength > m[i])) continue;
                    m[i] = strength;
                    if (directions) f.stepX[at + i] = sx, f.stepY[at + i] = sy;
                }
            }
        }
    }
};

template <class Operator>
int detect(const char* name, const Image* out, const Image* in) {
    if (int status = CheckNeighbourhood(name, out, in, Operator::kReach, Operator::kReach))
        return status;
    const PixelGrid src(in), dst(out);
    GradientField f(out->x1, out->y1, out->width(), out->height(), dst.n, false);
    Operator::field(src, f, out->height());
    for (int64_t y = out->y1; y < out->y2; ++y)
        std::copy_n(f.magnitude.data() + f.index(out->x1, y, 0), out->width() * dst.n,
                    dst.at(out->x1, y));
    return ERROR_NONE;
}

template <class Operator>
int select(const char* name, const Image* out, const Image* in, float threshold) {
    const int64_t reach = Operator::kReach + 1;
    if (int status = CheckNeighbourhood(name, out, in, reach, reach)) return status;
    const PixelGrid src(in), dst(out);
    // The gradient one pixel around the output, for the neighbours' strength.
    GradientField f(out->x1 - 1, out->y1 - 1, out->width() + 2, out->height() + 2, dst.n, true);
    Operator::field(src, f, out->height() + 2);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x)
            for (int c = 0; c < dst.n; ++c) {
                const size_t i = f.index(x, y, c);
                const float m = f.magnitude[i];
                bool ridge = m > 0.0f && m >= threshold;
                if (ridge) {
                    const int sx = f.stepX[i], sy = f.stepY[i];
                    ridge = m > f.magnitude[f.index(x - sx, y - sy, c)] &&
                            m >= f.magnitude[f.index(x + sx, y + sy, c)];
                }
                dst.at(x, y)[c] = ridge ? 1.0f : 0.0f;
            }
    return ERROR_NONE;
}

}  // namespace

int SobelEdgeDetect(const Image* out, const Image* in) {
    return detect<Sobel>("SobelEdgeDetect", out, in);
}
int BabuEdgeDetect(const Image* out, const Image* in) {
    return detect<Babu>("BabuEdgeDetect", out, in);
}
int SobelEdgeSelect(const Image* out, const Image* in, float threshold) {
    return select<Sobel>("SobelEdgeSelect", out, in, threshold);
}
int BabuEdgeSelect(const Image* out, const Image* in, float threshold) {
    return select<Babu>("BabuEdgeSelect", out, in, threshold);
}

int64_t GetEdgePadding(bool babu, bool select) {
    return (babu ? Babu::kReach : Sobel::kReach) + (select ? 1 : 0);
}

}  // namespace IMGLIB
