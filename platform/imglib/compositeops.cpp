#include "imglib/compositeops.h"

#include <string>

#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/neighbourhood.h"
#include "imglib/pixelengine.h"
#include "imglib/pixels.h"

namespace IMGLIB {
namespace {

int checkImage(const Image* image, const char* name) {
    if (!image) return ERROR_NONE;  // a missing input is its background colour
    if (!IsChannelMaskValid(image->channels))
        return SetError(ERROR_INVALID_CHANNEL_MASK, std::string(name) + ": invalid channel mask");
    if (!image->pixelPtr && image->width() > 0 && image->height() > 0 && image->channels)
        return SetError(ERROR_NULL_IMAGE, std::string(name) + ": image has no pixel memory");
    return ERROR_NONE;
}

// A channel of an image as a strided row reader: its value at (x, y), or
// `missing` when the image is null or lacks the channel.
struct ChannelReader {
    ChannelReader(const Image* image, uint64_t channel, float missing) : missing(missing) {
        slot = image ? GetChannelIndex(image->channels, channel) : -1;
        if (slot >= 0) {
            this->image = image;
            stride = GetChannelCount(image->channels);
        }
    }
    bool present() const { return slot >= 0; }
    float at(int64_t x, int64_t y) const {
        if (slot < 0 || x < image->x1 || x >= image->x2 || y < image->y1 || y >= image->y2)
            return missing;
        return GetPixelAddress(image, x, y, 4 * stride)[slot];
    }
    const Image* image = nullptr;
    int slot = -1;
    int stride = 0;
    float missing;
};

// The channels beyond R, G, B and A (see the header).
void mergeExtraChannels(const Image* out, const Image* in0, const Image* in1, int foreground,
                        const float bg0[4], const float bg1[4]) {
    const uint64_t extra = out->channels & ~uint64_t(CHANNELS_RGBA);
    if (!extra) return;
    const Image* fg = foreground == 0 ? in0 : in1;
    const Image* other = foreground == 0 ? in1 : in0;
    const ChannelReader coverage(fg, CHANNEL_A, (foreground == 0 ? bg0 : bg1)[3]);
    const int stride = GetChannelCount(out->channels);
    for (int bit = 4; bit < MAX_CHANNELS; ++bit) {
        const uint64_t channel = uint64_t(1) << bit;
        if (!(extra & channel)) continue;
        const int slot = GetChannelIndex(out->channels, channel);
        const ChannelReader front(fg, channel, 0.0f), back(other, channel, 0.0f);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            float* o = GetPixelAddress(out, out->x1, y, 4 * stride) + slot;
            for (int64_t x = out->x1; x < out->x2; ++x, o += stride) {
                const bool fromFront =
                    front.present() && (coverage.at(x, y) != 0.0f || !back.present());
                *o = fromFront ? front.at(x, y) : back.at(x, y);
            }
        }
    }
}

int run(const Image* out, const Image* in0, const Image* in1, const BinaryOp& op,
        const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1, const char* name) {
    if (!out) return SetError(ERROR_NULL_IMAGE, std::string(name) + ": null output image");
    for (const Image* image : {out, in0, in1})
        if (int err = checkImage(image, name)) return err;
    if (out->width() == 0 || out->height() == 0 || !out->channels) return ERROR_NONE;
    const float b0[4] = {bg0.r, bg0.g, bg0.b, bg0.a}, b1[4] = {bg1.r, bg1.g, bg1.b, bg1.a};
    DispatchBinaryOp(out, in0, in1, op, b0, b1);
    mergeExtraChannels(out, in0, in1, op.foreground, b0, b1);
    return ERROR_NONE;
}

BinaryOp makeOp(BinaryOpKind kind, bool flag) {
    BinaryOp op;
    op.kind = kind;
    op.flag = flag;
    return op;
}

}  // namespace

int ApplyBinaryOp(const Image* out, const Image* in0, const Image* in1, const BinaryOp& op,
                  const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1) {
    return run(out, in0, in1, op, bg0, bg1, "ApplyBinaryOp");
}

Imath::Color4<float> ApplyBinaryOpToColor(const BinaryOp& op, const Imath::Color4<float>& c0,
                                          const Imath::Color4<float>& c1) {
    // One pixel whose inputs are both "outside": their colours stand in.
    alignas(16) float pixel[4] = {};
    const Image image = SinglePixelImage(pixel);
    const float b0[4] = {c0.r, c0.g, c0.b, c0.a}, b1[4] = {c1.r, c1.g, c1.b, c1.a};
    DispatchBinaryOp(&image, nullptr, nullptr, op, b0, b1);
    return Imath::Color4<float>(pixel[0], pixel[1], pixel[2], pixel[3]);
}

#define IMGLIB_BINARY_OP(NAME, KIND)                                             \
    int NAME(const Image* out, const Image* in0, const Image* in1,               \
             const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1) { \
        return run(out, in0, in1, makeOp(KIND, false), bg0, bg1, #NAME);         \
    }
#define IMGLIB_FLAGGED_BINARY_OP(NAME, KIND)                                     \
    int NAME(const Image* out, const Image* in0, const Image* in1, bool flag,    \
             const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1) { \
        return run(out, in0, in1, makeOp(KIND, flag), bg0, bg1, #NAME);          \
    }
IMGLIB_BINARY_OP(Add, BINARYOP_ADD)
IMGLIB_FLAGGED_BINARY_OP(Atop, BINARYOP_ATOP)
IMGLIB_BINARY_OP(Average, BINARYOP_AVERAGE)
IMGLIB_BINARY_OP(Difference, BINARYOP_DIFFERENCE)
IMGLIB_BINARY_OP(Divide, BINARYOP_DIVIDE)
IMGLIB_BINARY_OP(Exclusion, BINARYOP_EXCLUSION)
IMGLIB_BINARY_OP(Subtract, BINARYOP_SUBTRACT)
IMGLIB_BINARY_OP(Geometric, BINARYOP_GEOMETRIC)
IMGLIB_BINARY_OP(Hypotenuse, BINARYOP_HYPOTENUSE)
IMGLIB_FLAGGED_BINARY_OP(Max, BINARYOP_MAX)
IMGLIB_FLAGGED_BINARY_OP(Min, BINARYOP_MIN)
IMGLIB_BINARY_OP(Multiply, BINARYOP_MULTIPLY)
IMGLIB_FLAGGED_BINARY_OP(In, BINARYOP_IN)
IMGLIB_FLAGGED_BINARY_OP(Out, BINARYOP_OUT)
IMGLIB_FLAGGED_BINARY_OP(Over, BINARYOP_OVER)
IMGLIB_FLAGGED_BINARY_OP(Under, BINARYOP_UNDER)
IMGLIB_FLAGGED_BINARY_OP(Screen, BINARYOP_SCREEN)
#undef IMGLIB_BINARY_OP
#undef IMGLIB_FLAGGED_BINARY_OP

int Mix(const Image* out, const Image* in0, const Image* in1, float amount,
        const Imath::Color4<float>& bg0, const Imath::Color4<float>& bg1) {
    BinaryOp op = makeOp(BINARYOP_MIX, false);
    op.mix = amount;
    return run(out, in0, in1, op, bg0, bg1, "Mix");
}

int MixByMask(const Image* out, const Image* in0, const Image* in1, const Image* mask) {
    if (int status = CheckNeighbourhood("MixByMask", out, in0, 0, 0)) return status;
    if (int status = CheckNeighbourhood("MixByMask", out, in1, 0, 0)) return status;
    int alpha = -1;
    if (int status = CheckControl("MixByMask", out, mask, CHANNEL_A, 0, 0, alpha)) return status;
    const PixelGrid a(in0), b(in1), m(mask), dst(out);
    for (int64_t y = out->y1; y < out->y2; ++y) {
        const float* pa = a.at(out->x1, y);
        const float* pb = b.at(out->x1, y);
        const float* pm = m.at(out->x1, y) + alpha;
        float* o = dst.at(out->x1, y);
        for (int64_t x = 0; x < out->width(); ++x) {
            const float k = pm[x * m.n];
            for (int c = 0; c < dst.n; ++c) {
                const int64_t i = x * dst.n + c;
                o[i] = pa[i] + (pb[i] - pa[i]) * k;
            }
        }
    }
    return ERROR_NONE;
}

}  // namespace IMGLIB
