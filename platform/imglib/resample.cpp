#include "imglib/resample.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "imglib/resampleengine.h"

namespace IMGLIB {

UnaryOperation::~UnaryOperation() = default;

namespace {

using M33 = Imath::Matrix33<float>;
constexpr int kMaxTaps = 512;

// The filter along one input axis for a footprint of `scale` input pixels per
// output pixel.
struct Axis {
    KernelType kernel;
    float width;  // full, in input pixels
    float radius() const { return 0.5f * width; }
};

Axis axisFor(KernelType primary, KernelType secondary, float scale) {
    if (scale > 1.0f) return Axis{secondary, GetKernelWidth(secondary) * scale};
    return Axis{primary, GetKernelWidth(primary)};
}

// How far from a sample position the filter reads, in whole pixels.
int64_t reach(const Axis& a) {
    return static_cast<int64_t>(std::ceil(a.radius())) + 1;
}

// Taps for a sample at continuous coordinate c (pixel i has its centre at
// i + 0.5): the first tap's index, normalised weights, their count.
int axisTaps(const Axis& a, float c, int64_t& first, float* w) {
    const float r = a.radius();
    int64_t lo = static_cast<int64_t>(std::ceil(c - 0.5f - r));
    int64_t hi = static_cast<int64_t>(std::floor(c - 0.5f + r));
    if (hi < lo) lo = hi = static_cast<int64_t>(std::floor(c));  // narrower than a pixel
    const int n = static_cast<int>(std::min<int64_t>(hi - lo + 1, kMaxTaps));
    float sum = 0.0f;
    for (int i = 0; i < n; ++i) {
        w[i] = EvalKernel(a.kernel, float(lo + i) + 0.5f - c, a.width);
        sum += w[i];
    }
    if (sum == 0.0f) {  // only zero-weight taps: the nearest pixel
        first = static_cast<int64_t>(std::floor(c));
        w[0] = 1.0f;
        return 1;
    }
    for (int i = 0; i < n; ++i) w[i] /= sum;
    first = lo;
    return n;
}

// Reads images channel-agnostically: a pixel of `in` as n floats, or the
// background colour in the input's layout outside it.
struct Source {
    Source(const Image* image, const Imath::Color4<float>& bg)
        : in(image),
          n(GetChannelCount(image->channels)),
          pixelBytes(GetPixelBytes(image->channels)) {
        for (int c = 0; c < MAX_CHANNELS; ++c) background[c] = 0.0f;
        for (int c = 0; c < 4; ++c) {
            const int slot = GetChannelIndex(image->channels, uint64_t(1) << c);
            if (slot >= 0) background[slot] = bg[c];
        }
    }
    bool contains(int64_t x0, int64_t y0, int nx, int ny) const {
        return x0 >= in->x1 && y0 >= in->y1 && x0 + nx <= in->x2 && y0 + ny <= in->y2;
    }
    bool overlaps(int64_t x0, int64_t y0, int nx, int ny) const {
        return x0 < in->x2 && y0 < in->y2 && x0 + nx > in->x1 && y0 + ny > in->y1;
    }
    const float* pixel(int64_t x, int64_t y) const {
        if (x < in->x1 || x >= in->x2 || y < in->y1 || y >= in->y2) return background;
        return GetPixelAddress(in, x, y, pixelBytes);
    }
    const Image* in;
    int n;
    int64_t pixelBytes;
    float background[MAX_CHANNELS];
};

// Sum over the taps, into acc (the input's layout). N > 0: a fixed channel
// count the compiler can unroll; N = 0: any.
template <int N>
void filter(const Source& s, int64_t x0, int nx, const float* wx, int64_t y0, int ny,
            const float* wy, float* acc) {
    const int n = N > 0 ? N : s.n;
    float total[MAX_CHANNELS] = {};
    const bool inside = s.contains(x0, y0, nx, ny);
    for (int j = 0; j < ny; ++j) {
        float row[MAX_CHANNELS] = {};
        if (inside) {
            const float* p = GetPixelAddress(s.in, x0, y0 + j, s.pixelBytes);
            for (int i = 0; i < nx; ++i, p += n)
                for (int c = 0; c < n; ++c) row[c] += wx[i] * p[c];
        } else {
            for (int i = 0; i < nx; ++i) {
                const float* p = s.pixel(x0 + i, y0 + j);
                for (int c = 0; c < n; ++c) row[c] += wx[i] * p[c];
            }
        }
        for (int c = 0; c < n; ++c) total[c] += wy[j] * row[c];
    }
    for (int c = 0; c < n; ++c) acc[c] = total[c];
}

void filterAny(const Source& s, int64_t x0, int nx, const float* wx, int64_t y0, int ny,
               const float* wy, float* acc) {
    switch (s.n) {
        case 4:
            filter<4>(s, x0, nx, wx, y0, ny, wy, acc);
            break;
        case 3:
            filter<3>(s, x0, nx, wx, y0, ny, wy, acc);
            break;
        case 1:
            filter<1>(s, x0, nx, wx, y0, ny, wy, acc);
            break;
        default:
            filter<0>(s, x0, nx, wx, y0, ny, wy, acc);
            break;
    }
}

// Where each output channel comes from in the input's layout (-1: nowhere).
struct ChannelMap {
    ChannelMap(uint64_t outChannels, uint64_t inChannels) {
        for (int bit = 0; bit < MAX_CHANNELS; ++bit)
            if (outChannels & (uint64_t(1) << bit))
                slot[count++] = GetChannelIndex(inChannels, uint64_t(1) << bit);
    }
    void write(float* dst, const float* acc) const {
        for (int c = 0; c < count; ++c) dst[c] = slot[c] >= 0 ? acc[slot[c]] : 0.0f;
    }
    int slot[MAX_CHANNELS];
    int count = 0;
};

bool invert(const M33& m, M33& inverse) {
    const float det = m.determinant();
    if (!(std::fabs(det) > 1e-20f) || !std::isfinite(det)) return false;
    inverse = m.inverse(false);
    return true;
}

// Maps p through the inverse with the local footprint (input pixels per
// output pixel along each input axis); false behind the projection centre.
struct Mapped {
    float u, v, su, sv;
};

bool mapPoint(const M33& mi, float x, float y, Mapped& out) {
    const float w = x * mi[0][2] + y * mi[1][2] + mi[2][2];
    if (!(w > 0.0f)) return false;
    const float toPlane = 1.0f / w;  // one division instead of six
    const float u = (x * mi[0][0] + y * mi[1][0] + mi[2][0]) * toPlane;
    const float v = (x * mi[0][1] + y * mi[1][1] + mi[2][1]) * toPlane;
    // Near the horizon a point maps beyond any image (and beyond what a
    // pixel index holds): the background, as behind the centre.
    constexpr float kFarthest = 1e15f;
    if (!(std::fabs(u) < kFarthest && std::fabs(v) < kFarthest)) return false;
    const float dudx = (mi[0][0] - u * mi[0][2]) * toPlane;
    const float dudy = (mi[1][0] - u * mi[1][2]) * toPlane;
    const float dvdx = (mi[0][1] - v * mi[0][2]) * toPlane;
    const float dvdy = (mi[1][1] - v * mi[1][2]) * toPlane;
    // A filter reads at most kMaxTaps pixels a side whatever the footprint,
    // so a larger one (near the horizon) only needs to stay a number.
    constexpr float kWidestFootprint = 1e6f;
    out = Mapped{u, v, std::min(std::sqrt(dudx * dudx + dudy * dudy), kWidestFootprint),
                 std::min(std::sqrt(dvdx * dvdx + dvdy * dvdy), kWidestFootprint)};
    return true;
}

// One sample at output point (x, y) through inverse mi, into acc.
bool samplePoint(const Source& s, const M33& mi, KernelType primary, KernelType secondary, float x,
                 float y, float* acc) {
    Mapped m;
    if (!mapPoint(mi, x, y, m)) return false;
    float wx[kMaxTaps], wy[kMaxTaps];
    int64_t x0, y0;
    const int nx = axisTaps(axisFor(primary, secondary, m.su), m.u, x0, wx);
    const int ny = axisTaps(axisFor(primary, secondary, m.sv), m.v, y0, wy);
    filterAny(s, x0, nx, wx, y0, ny, wy, acc);
    return true;
}

int checkImages(const Image* out, const Image* in, const char* name) {
    if (!out || !in) return SetError(ERROR_NULL_IMAGE, std::string(name) + ": null image");
    if (!IsChannelMaskValid(out->channels) || !IsChannelMaskValid(in->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, std::string(name) + ": invalid channel mask");
    if ((!out->pixelPtr && out->width() && out->height() && out->channels) ||
        (!in->pixelPtr && in->width() && in->height() && in->channels))
        return SetError(ERROR_NULL_IMAGE, std::string(name) + ": image has no pixel memory");
    return ERROR_NONE;
}

// Bounding box of the corners of r mapped through m (false if any lies
// behind the projection centre).
bool mapRect(const M33& m, const UTIL::Rect& r, float& x0, float& y0, float& x1, float& y1,
             float& maxSu, float& maxSv) {
    x0 = y0 = 1e30f;
    x1 = y1 = -1e30f;
    maxSu = maxSv = 0.0f;
    const float xs[2] = {float(r.xmin), float(r.xmax)}, ys[2] = {float(r.ymin), float(r.ymax)};
    for (float x : xs)
        for (float y : ys) {
            Mapped p;
            if (!mapPoint(m, x, y, p)) return false;
            x0 = std::min(x0, p.u), x1 = std::max(x1, p.u);
            y0 = std::min(y0, p.v), y1 = std::max(y1, p.v);
            maxSu = std::max(maxSu, p.su), maxSv = std::max(maxSv, p.sv);
        }
    return true;
}

UTIL::Rect grownBox(float x0, float y0, float x1, float y1, int64_t gx, int64_t gy) {
    const float limit = float(UTIL::Rect::INFINITE_EXTENT);
    auto clampToInt = [&](float v) { return static_cast<int64_t>(std::clamp(v, -limit, limit)); };
    return UTIL::Rect(clampToInt(std::floor(x0)) - gx, clampToInt(std::floor(y0)) - gy,
                      clampToInt(std::ceil(x1)) + gx, clampToInt(std::ceil(y1)) + gy);
}

}  // namespace

UTIL::Rect GetRequiredTransformInputRect(const M33& inverse, KernelType primary,
                                         KernelType secondary, const UTIL::Rect& outputRect) {
    if (outputRect.isNull()) return UTIL::Rect();
    float x0, y0, x1, y1, su, sv;
    if (!mapRect(inverse, outputRect, x0, y0, x1, y1, su, sv)) return UTIL::Rect::infinite();
    return grownBox(x0, y0, x1, y1, reach(axisFor(primary, secondary, su)),
                    reach(axisFor(primary, secondary, sv)));
}

UTIL::Rect GetTransformedOutputRect(const M33& m, KernelType primary, KernelType secondary,
                                    const UTIL::Rect& inputRect) {
    if (inputRect.isNull()) return UTIL::Rect();
    M33 inverse;
    if (!invert(m, inverse)) return UTIL::Rect();
    // The input's pixels reach as far as the filter of the inverse reads:
    // grow the input by that reach, then map it forward.
    float x0, y0, x1, y1, su, sv;
    const UTIL::Rect probe = inputRect;
    if (!mapRect(m, probe, x0, y0, x1, y1, su, sv)) return UTIL::Rect::infinite();
    const UTIL::Rect outBox = grownBox(x0, y0, x1, y1, 0, 0);
    float ix0, iy0, ix1, iy1, isu, isv;
    if (!mapRect(inverse, outBox, ix0, iy0, ix1, iy1, isu, isv)) return UTIL::Rect::infinite();
    const int64_t gx = reach(axisFor(primary, secondary, isu)),
                  gy = reach(axisFor(primary, secondary, isv));
    const UTIL::Rect grown = inputRect.grown(gx, gy);
    if (!mapRect(m, grown, x0, y0, x1, y1, su, sv)) return UTIL::Rect::infinite();
    return grownBox(x0, y0, x1, y1, 1, 1);
}

namespace {

// Tap tables for the projective transform. Its footprint changes from pixel
// to pixel, so each thread keeps a table per kernel and footprint, the
// footprint rounded to six bits of mantissa (under 0.8%, well inside the
// accuracy of the footprint itself). Pixel values depend only on the
// rounded footprint, never on which thread or tile built the table.
class FootprintTables {
public:
    static FootprintTables& forThisThread() {
        thread_local FootprintTables tables;
        return tables;
    }
    // Called between transforms only: a batch of pixels points into the
    // tables until it is filtered.
    void trim() {
        if (m_bytes <= kBudget) return;
        m_tables.clear();
        m_bytes = 0;
        for (Recent& r : m_recent) r = Recent{};
    }
    // The table for a footprint of `scale` input pixels per output pixel
    // along `axis` (0 or 1), or null where the filter is too wide for a
    // table to pay.
    const PhaseTable* find(int axis, KernelType primary, KernelType secondary, float scale) {
        // The primary kernel at its own width is key 0 of its kernel.
        uint32_t rounded = 0;
        KernelType kernel = primary;
        if (scale > 1.0f) {
            uint32_t bits;
            std::memcpy(&bits, &scale, sizeof bits);
            rounded = (bits + (1u << (kDroppedBits - 1))) >> kDroppedBits;
            kernel = secondary;
        }
        const uint32_t key = (uint32_t(kernel) << 24) | rounded;
        Recent& recent = m_recent[axis];
        if (key == recent.key) return recent.table;
        float width = GetKernelWidth(kernel);
        if (rounded) {
            const uint32_t bits = rounded << kDroppedBits;
            float roundedScale;
            std::memcpy(&roundedScale, &bits, sizeof bits);
            width *= roundedScale;
        }
        if (!(width <= kWidestTable)) return nullptr;
        std::unique_ptr<PhaseTable>& table = m_tables[key];
        if (!table) {
            table = std::make_unique<PhaseTable>(kernel, width);
            m_bytes += table->bytes();
        }
        recent = Recent{key, table.get()};
        return recent.table;
    }

private:
    static constexpr int kDroppedBits = 23 - 6;   // of a float's mantissa
    static constexpr float kWidestTable = 32.0f;  // input pixels
    static constexpr size_t kBudget = size_t(16) << 20;
    struct Recent {
        uint32_t key = ~uint32_t(0);
        const PhaseTable* table = nullptr;
    };
    std::unordered_map<uint32_t, std::unique_ptr<PhaseTable>> m_tables;
    size_t m_bytes = 0;
    Recent m_recent[2];
};

// Taps along one axis of a projective map: from a table where one pays,
// else evaluated into `room`.
int projectiveTaps(FootprintTables& tables, int axis, KernelType primary, KernelType secondary,
                   float scale, float c, int64_t& first, const float*& w, float* room) {
    if (const PhaseTable* table = tables.find(axis, primary, secondary, scale))
        return table->taps(c, first, w);
    w = room;
    return axisTaps(axisFor(primary, secondary, scale), c, first, room);
}

}  // namespace

int ProjTransformImage(const Image* out, const Image* in, const M33& m, KernelType primary,
                       KernelType secondary, const Imath::Color4<float>& background) {
    if (int err = checkImages(out, in, "ProjTransformImage")) return err;
    M33 inverse;
    if (!invert(m, inverse))
        return SetError(ERROR_INVALID_ARGUMENT, "ProjTransformImage: singular matrix");
    const Source source(in, background);
    const ChannelMap map(out->channels, in->channels);
    const int64_t pixelBytes = GetPixelBytes(out->channels);
    const int64_t rowFloats = in->rowBytes / 4;
    const bool rgba = out->channels == CHANNELS_RGBA && in->channels == CHANNELS_RGBA;
    FootprintTables& tables = FootprintTables::forThisThread();
    tables.trim();
    // Pixels whose taps lie inside an RGBA input are filtered a batch at a
    // time by the vector kernel; weights evaluated rather than taken from a
    // table wait in `room` until then.
    constexpr size_t kBatch = 32;
    std::vector<float> room(kBatch * 2 * kMaxTaps);
    std::vector<PixelTaps> batch;
    batch.reserve(kBatch);
    const auto flush = [&] {
        DispatchFilterPixelsRGBA(batch.data(), batch.size(), rowFloats);
        batch.clear();
    };
    for (int64_t y = out->y1; y < out->y2; ++y)
        for (int64_t x = out->x1; x < out->x2; ++x) {
            float* dst = GetPixelAddress(out, x, y, pixelBytes);
            Mapped p;
            if (!mapPoint(inverse, float(x) + 0.5f, float(y) + 0.5f, p)) {
                map.write(dst, source.background);  // behind the projection centre
                continue;
            }
            float* roomX = &room[batch.size() * 2 * kMaxTaps];
            const float *wx, *wy;
            int64_t x0, y0;
            const int nx = projectiveTaps(tables, 0, primary, secondary, p.su, p.u, x0, wx, roomX);
            const int ny =
                projectiveTaps(tables, 1, primary, secondary, p.sv, p.v, y0, wy, roomX + kMaxTaps);
            if (rgba && source.contains(x0, y0, nx, ny)) {
                batch.push_back(PixelTaps{GetPixelAddress(in, x0, y0, 16), wx, wy, nx, ny, dst});
                if (batch.size() == kBatch) flush();
                continue;
            }
            float acc[MAX_CHANNELS];
            filterAny(source, x0, nx, wx, y0, ny, wy, acc);
            map.write(dst, acc);
        }
    flush();
    return ERROR_NONE;
}

PhaseTable::PhaseTable(KernelType kernel, float width) {
    const Axis axis{kernel, width};
    std::vector<std::vector<float>> rows;
    for (int p = 0; p < kPhases; ++p) {
        // A sample at c = 0.5 + p / kPhases: phase 0 is a pixel centre
        // exactly, so whole-pixel moves stay exact.
        float w[kMaxTaps];
        int64_t first;
        const float c = 0.5f + float(p) / float(kPhases);
        const int n = axisTaps(axis, c, first, w);
        m_first.push_back(first);
        m_counts.push_back(n);
        rows.emplace_back(w, w + n);
        m_stride = std::max(m_stride, n);
    }
    m_weights.assign(static_cast<size_t>(kPhases * m_stride), 0.0f);
    for (int p = 0; p < kPhases; ++p)
        std::copy(rows[p].begin(), rows[p].end(), m_weights.begin() + p * m_stride);
}

namespace {

class AffineTransform : public UnaryOperation {
public:
    AffineTransform(const M33& inverse, const Axis& ax, const Axis& ay,
                    const Imath::Color4<float>& bg)
        : m_inverse(inverse),
          m_x(ax.kernel, ax.width),
          m_y(ay.kernel, ay.width),
          m_background(bg) {}

    int apply(const Image* out, const Image* in) const override {
        if (int err = checkImages(out, in, "AffineTransform")) return err;
        const Rows rows{*this, Source(in, m_background), ChannelMap(out->channels, in->channels)};
        const int64_t pixelBytes = GetPixelBytes(out->channels);
        const M33& mi = m_inverse;
        if (out->channels == CHANNELS_RGBA && in->channels == CHANNELS_RGBA) {
            AffineRow row{&m_x,     &m_y,     mi[0][0], mi[1][0],    mi[2][0],
                          mi[0][1], mi[1][1], mi[2][1], in,          nullptr,
                          out->x1,  out->x2,  0,        &Rows::edge, &rows};
            for (int64_t y = out->y1; y < out->y2; ++y) {
                row.y = y;
                row.dst = GetPixelAddress(out, out->x1, y, pixelBytes);
                DispatchAffineRowRGBA(row);
            }
            return ERROR_NONE;
        }
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* dst = GetPixelAddress(out, out->x1, y, pixelBytes);
            for (int64_t x = out->x1; x < out->x2; ++x, dst += rows.map.count)
                rows.pixel(x, y, dst);
        }
        return ERROR_NONE;
    }

private:
    // Any pixel, any channels: the taps read through the source, which
    // gives the background outside the input.
    struct Rows {
        const AffineTransform& t;
        Source source;
        ChannelMap map;

        void pixel(int64_t x, int64_t y, float* dst) const {
            const M33& mi = t.m_inverse;
            const float px = float(x) + 0.5f, py = float(y) + 0.5f;
            const float u = px * mi[0][0] + py * mi[1][0] + mi[2][0];
            const float v = px * mi[0][1] + py * mi[1][1] + mi[2][1];
            int64_t x0, y0;
            const float *wx, *wy;
            const int nx = t.m_x.taps(u, x0, wx), ny = t.m_y.taps(v, y0, wy);
            if (!source.overlaps(x0, y0, nx, ny)) {
                map.write(dst, source.background);  // wholly outside the input
                return;
            }
            float acc[MAX_CHANNELS];
            filterAny(source, x0, nx, wx, y0, ny, wy, acc);
            map.write(dst, acc);
        }
        static void edge(const void* rows, int64_t x, int64_t y, float* dst) {
            static_cast<const Rows*>(rows)->pixel(x, y, dst);
        }
    };

    M33 m_inverse;
    PhaseTable m_x, m_y;
    Imath::Color4<float> m_background;
};

class MotionBlurTransform : public UnaryOperation {
public:
    MotionBlurTransform(std::vector<M33> inverses, std::vector<std::vector<size_t>> sets,
                        KernelType primary, KernelType secondary, const Imath::Color4<float>& bg)
        : m_inverses(std::move(inverses)),
          m_sets(std::move(sets)),
          m_primary(primary),
          m_secondary(secondary),
          m_background(bg) {
        // Without index sets, every pixel averages every matrix.
        for (size_t i = 0; i < m_inverses.size(); ++i) m_all.push_back(i);
    }

    int apply(const Image* out, const Image* in) const override {
        if (int err = checkImages(out, in, "MotionBlurTransform")) return err;
        const Source source(in, m_background);
        const ChannelMap map(out->channels, in->channels);
        const int64_t pixelBytes = GetPixelBytes(out->channels);
        float acc[MAX_CHANNELS], sum[MAX_CHANNELS];
        for (int64_t y = out->y1; y < out->y2; ++y)
            for (int64_t x = out->x1; x < out->x2; ++x) {
                const std::vector<size_t>& set = m_sets.empty() ? m_all : setFor(x, y);
                std::fill(sum, sum + source.n, 0.0f);
                for (size_t index : set) {
                    const bool hit = index < m_inverses.size() &&
                                     samplePoint(source, m_inverses[index], m_primary, m_secondary,
                                                 float(x) + 0.5f, float(y) + 0.5f, acc);
                    const float* value = hit ? acc : source.background;
                    for (int c = 0; c < source.n; ++c) sum[c] += value[c];
                }
                const float scale = set.empty() ? 0.0f : 1.0f / float(set.size());
                for (int c = 0; c < source.n; ++c) sum[c] *= scale;
                map.write(GetPixelAddress(out, x, y, pixelBytes), sum);
            }
        return ERROR_NONE;
    }

private:
    // The set of a pixel depends on its coordinates only.
    const std::vector<size_t>& setFor(int64_t x, int64_t y) const {
        const uint64_t h =
            (static_cast<uint64_t>(x) * 73856093u) ^ (static_cast<uint64_t>(y) * 19349663u);
        return m_sets[static_cast<size_t>((h ^ (h >> 17)) % m_sets.size())];
    }

    std::vector<M33> m_inverses;
    std::vector<std::vector<size_t>> m_sets;
    std::vector<size_t> m_all;
    KernelType m_primary, m_secondary;
    Imath::Color4<float> m_background;
};

}  // namespace

UnaryOperation* createAffineTransformFunction(const UTIL::Rect&, const M33& m, KernelType primary,
                                              KernelType secondary,
                                              const Imath::Color4<float>& background) {
    M33 inverse;
    if (!invert(m, inverse)) return nullptr;
    const float su = std::sqrt(inverse[0][0] * inverse[0][0] + inverse[1][0] * inverse[1][0]);
    const float sv = std::sqrt(inverse[0][1] * inverse[0][1] + inverse[1][1] * inverse[1][1]);
    return new AffineTransform(inverse, axisFor(primary, secondary, su),
                               axisFor(primary, secondary, sv), background);
}

UnaryOperation* createMotionBlurTransformFunction(const std::vector<M33>& matrices,
                                                  const std::vector<std::vector<size_t>>& indexSets,
                                                  KernelType primary, KernelType secondary,
                                                  const Imath::Color4<float>& background) {
    std::vector<M33> inverses;
    for (const M33& m : matrices) {
        M33 inverse;
        inverses.push_back(invert(m, inverse) ? inverse : M33());
    }
    return new MotionBlurTransform(std::move(inverses), indexSets, primary, secondary, background);
}

}  // namespace IMGLIB
