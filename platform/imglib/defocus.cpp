#include "imglib/defocus.h"

#include <cmath>
#include <utility>
#include <vector>

#include "imglib/neighbourhood.h"
#include "imglib/pixels.h"
#include "imglib/rowops.h"

namespace IMGLIB {

namespace {

constexpr float kPi = 3.14159265358979f;

// The aperture as rows: in each, a run of whole pixels of weight 1 and the
// partly covered pixels around it.
struct ApertureRows {
    struct Partial {
        int64_t dx;
        float weight;
    };
    struct Row {
        int64_t first = 1, last = 0;  // the run [first, last]; empty when first > last
        std::vector<Partial> partials;
    };
    int64_t padX = 0, padY = 0;
    std::vector<Row> rows;  // dy = -padY .. padY
    double total = 0.0;
};

struct ApertureTest {
    ApertureTest(float size, const ApertureShape& shape) {
        const float aspect = shape.aspect > 0.0f ? shape.aspect : 1.0f;
        rx = 0.5f * size;
        ry = 0.5f * size * aspect;
        blades = shape.blades;
        const float angle = shape.rotation * kPi / 180.0f;
        cosine = std::cos(angle), sine = std::sin(angle);
        apothem = blades >= 3 ? std::cos(kPi / float(blades)) : 1.0f;
        // The edges' outward normals, once for every point tested.
        for (int64_t k = 0; blades >= 3 && k < blades; ++k) {
            const float normal = (2.0f * float(k) + 1.0f) * kPi / float(blades) + 0.5f * kPi;
            normals.emplace_back(std::cos(normal), std::sin(normal));
        }
    }
    bool inside(float x, float y) const {
        // To the unit circle, then turned back by the rotation.
        const float u0 = x / rx, v0 = y / ry;
        const float u = u0 * cosine + v0 * sine, v = -u0 * sine + v0 * cosine;
        if (blades < 3) return u * u + v * v <= 1.0f;
        for (const auto& [nx, ny] : normals)
            if (u * nx + v * ny > apothem) return false;
        return true;
    }
    float rx, ry, cosine, sine, apothem;
    int64_t blades;
    std::vector<std::pair<float, float>> normals;
};

ApertureRows buildAperture(float size, const ApertureShape& shape) {
    ApertureRows a;
    if (!(size > 1.0f)) {  // the identity
        a.rows.resize(1);
        a.rows[0].first = a.rows[0].last = 0;
        a.total = 1.0;
        return a;
    }
    GetDefocusPadding(size, shape.aspect, shape.blades, shape.rotation, shape.smooth, a.padX,
                      a.padY);
    const ApertureTest test(size, shape);
    constexpr int kSub = 8;  // samples per pixel side on smooth edges
    a.rows.resize(static_cast<size_t>(2 * a.padY + 1));
    for (int64_t dy = -a.padY; dy <= a.padY; ++dy) {
        ApertureRows::Row& row = a.rows[static_cast<size_t>(dy + a.padY)];
        for (int64_t dx = -a.padX; dx <= a.padX; ++dx) {
            float weight;
            if (!shape.smooth) {
                weight = test.inside(float(dx), float(dy)) ? 1.0f : 0.0f;
            } else {
                int hits = 0;
                for (int sy = 0; sy < kSub; ++sy)
                    for (int sx = 0; sx < kSub; ++sx)
                        hits += test.inside(float(dx) + (sx + 0.5f) / kSub - 0.5f,
                                            float(dy) + (sy + 0.5f) / kSub - 0.5f);
                weight = float(hits) / float(kSub * kSub);
            }
            if (weight <= 0.0f) continue;
            a.total += weight;
            if (weight >= 1.0f && (row.first > row.last || row.last == dx - 1)) {
                if (row.first > row.last) row.first = dx;
                row.last = dx;
            } else {
                row.partials.push_back({dx, weight});
            }
        }
    }
    if (a.total <= 0.0) {  // smaller than a pixel: the centre alone
        a.rows.assign(1, ApertureRows::Row());
        a.rows[0].first = a.rows[0].last = 0;
        a.padX = a.padY = 0;
        a.total = 1.0;
    }
    return a;
}

}  // namespace

void GetDefocusPadding(float size, float aspect, int64_t, float, bool, int64_t& padX,
                       int64_t& padY) {
    // The polygon lies inside its ellipse whatever its rotation; a pixel is
    // reached when its square overlaps the ellipse.
    const float a = aspect > 0.0f ? aspect : 1.0f;
    padX = size > 1.0f ? ReachPixels(0.5f * size - 0.5f) : 0;
    padY = size > 1.0f ? ReachPixels(0.5f * size * a - 0.5f) : 0;
}

int Defocus(const Image* out, const Image* in, float size, float aspect, int64_t blades,
            float rotation, bool smooth) {
    const ApertureRows aperture = buildAperture(size, {aspect, blades, rotation, smooth});
    if (int status = CheckNeighbourhood("Defocus", out, in, aperture.padX, aperture.padY))
        return status;
    if (aperture.padX == 0 && aperture.padY == 0) return CopyInto(out, in);
    const PixelGrid src(in), dst(out);
    const int n = dst.n;
    const int64_t width = out->width(), spanX = width + 2 * aperture.padX;
    // Sums of the output's rows, fed one input row at a time: each input row's
    // running sums serve every aperture row that reads it.
    std::vector<double> acc(static_cast<size_t>(width * out->height() * n), 0.0);
    std::vector<double> prefix(static_cast<size_t>((spanX + 1) * n));
    for (int64_t r = out->y1 - aperture.padY; r < out->y2 + aperture.padY; ++r) {
        const float* row = src.at(out->x1 - aperture.padX, r);
        for (int c = 0; c < n; ++c) prefix[c] = 0.0;
        for (int64_t i = 0; i < spanX * n; ++i) prefix[i + n] = prefix[i] + row[i];
        for (int64_t dy = -aperture.padY; dy <= aperture.padY; ++dy) {
            const int64_t y = r - dy;
            if (y < out->y1 || y >= out->y2) continue;
            const ApertureRows::Row& ar = aperture.rows[static_cast<size_t>(dy + aperture.padY)];
            double* a = acc.data() + (y - out->y1) * width * n;
            if (ar.first <= ar.last) {
                // Pixel x reads input columns x + first .. x + last, which sit at
                // offset padX in the row.
                RowAddDifference(a, prefix.data() + (ar.last + aperture.padX + 1) * n,
                                 prefix.data() + (ar.first + aperture.padX) * n,
                                 static_cast<size_t>(width * n));
            }
            for (const ApertureRows::Partial& p : ar.partials)
                RowMulAddWiden(a, row + (p.dx + aperture.padX) * n, p.weight,
                               static_cast<size_t>(width * n));
        }
    }
    const double scale = 1.0 / aperture.total;
    for (int64_t y = out->y1; y < out->y2; ++y) {
        float* o = dst.at(out->x1, y);
        const double* a = acc.data() + (y - out->y1) * width * n;
        for (int64_t i = 0; i < width * n; ++i) o[i] = float(a[i] * scale);
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
