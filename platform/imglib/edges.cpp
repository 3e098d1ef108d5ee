#include "imglib/edges.h"

#include <cmath>
#include <cstdlib>

#include "imglib/neighbourhood.h"

namespace IMGLIB {

namespace {

struct Gradient {
    float magnitude;
    int stepX, stepY;  // the neighbour across the edge, one of eight directions
};

// The nearest of the eight neighbour directions to the angle (y down).
void quantize(float cosine, float sine, int& stepX, int& stepY) {
    constexpr float kSin22_5 = 0.38268343f;
    stepX = std::fabs(cosine) > kSin22_5 ? (cosine > 0 ? 1 : -1) : 0;
    stepY = std::fabs(sine) > kSin22_5 ? (sine > 0 ? 1 : -1) : 0;
}

struct Sobel {
    static constexpr int64_t kReach = 1;
    static Gradient at(const PixelGrid& g, int64_t x, int64_t y, int c) {
        const auto p = [&](int dx, int dy) { return g.at(x + dx, y + dy)[c]; };
        const float gx =
            (p(1, -1) + 2 * p(1, 0) + p(1, 1) - p(-1, -1) - 2 * p(-1, 0) - p(-1, 1)) * 0.25f;
        const float gy =
            (p(-1, 1) + 2 * p(0, 1) + p(1, 1) - p(-1, -1) - 2 * p(0, -1) - p(1, -1)) * 0.25f;
        Gradient result{std::sqrt(gx * gx + gy * gy), 1, 0};
        if (result.magnitude > 0)
            quantize(gx / result.magnitude, gy / result.magnitude, result.stepX, result.stepY);
        return result;
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
    static Gradient at(const PixelGrid& g, int64_t x, int64_t y, int c) {
        static const Masks masks;
        float best = 0.0f;
        int bestMask = 0;
        for (int k = 0; k < 6; ++k) {
            float sum = 0.0f;
            for (int r = 0; r < 5; ++r) {
                const float* row = g.at(x - 2, y - 2 + r) + c;
                for (int col = 0; col < 5; ++col) sum += float(masks.m[k][r][col]) * row[col * g.n];
            }
            if (std::fabs(sum) > best) best = std::fabs(sum), bestMask = k;
        }
        Gradient result{best * 1e-3f, 1, 0};
        const float angle = float(bestMask) * 0.52359878f;
        quantize(std::cos(angle), -std::sin(angle), result.stepX, result.stepY);
        return result;
    }
};

template <class Operator>
int detect(const char* name, const Image* out, const Image* in) {
    if (int status = CheckNeighbourhood(name, out, in, Operator::kReach, Operator::kReach))
        return status;
    const PixelGrid src(in), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x)
            for (int c = 0; c < dst.n; ++c) dst.at(x, y)[c] = Operator::at(src, x, y, c).magnitude;
    return ERROR_NONE;
}

template <class Operator>
int select(const char* name, const Image* out, const Image* in, float threshold) {
    const int64_t reach = Operator::kReach + 1;
    if (int status = CheckNeighbourhood(name, out, in, reach, reach)) return status;
    const PixelGrid src(in), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x)
            for (int c = 0; c < dst.n; ++c) {
                const Gradient g = Operator::at(src, x, y, c);
                bool ridge = g.magnitude > 0.0f && g.magnitude >= threshold;
                if (ridge) {
                    const float before = Operator::at(src, x - g.stepX, y - g.stepY, c).magnitude;
                    const float after = Operator::at(src, x + g.stepX, y + g.stepY, c).magnitude;
                    ridge = g.magnitude > before && g.magnitude >= after;
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
