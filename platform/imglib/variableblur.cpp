#include "imglib/variableblur.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "imglib/fastfilter.h"
#include "imglib/neighbourhood.h"

namespace IMGLIB {

namespace {

// out = sum over layers k of max(0, 1 - |a L - k|) blurLevel(k / L), where a
// is the control's amount; layers no pixel needs are not made.
template <class BlurLevel>
int blendLayers(const char* name, const Image* out, const Image* control, uint64_t channel,
                float scale, int64_t layers, const BlurLevel& blurLevel) {
    int slot = -1;
    if (int status = CheckControl(name, out, control, channel, 0, 0, slot)) return status;
    if (layers < 1 || layers > 256)
        return SetError(
            ERROR_INVALID_ARGUMENT,
            std::string(name) + ": layers must be 1 to 256, not " + std::to_string(layers));
    if (out->width() == 0 || out->height() == 0 || !out->channels) return ERROR_NONE;
    const PixelGrid ctl(control), dst(out);
    const int64_t width = out->width(), height = out->height();
    std::vector<float> position(static_cast<size_t>(width * height));
    float lowest = float(layers), highest = 0.0f;
    for (int64_t y = 0; y < height; ++y)
        for (int64_t x = 0; x < width; ++x) {
            const float a = ctl.at(out->x1 + x, out->y1 + y)[slot] * scale;
            const float t = (a > 0.0f ? std::min(a, 1.0f) : 0.0f) * float(layers);
            position[static_cast<size_t>(y * width + x)] = t;
            lowest = std::min(lowest, t), highest = std::max(highest, t);
        }
    // One layer image of the output's size, re-used.
    ScratchImage layer(*out);
    const std::vector<float>& layerPixels = layer.pixels;
    std::vector<float> acc(layerPixels.size(), 0.0f);
    for (int64_t k = std::max<int64_t>(0, int64_t(std::floor(lowest)));
         k <= std::min<int64_t>(layers, int64_t(std::ceil(highest))); ++k) {
        if (int status = blurLevel(&layer.image, float(k) / float(layers))) return status;
        for (size_t p = 0; p < position.size(); ++p) {
            const float w = 1.0f - std::fabs(position[p] - float(k));
            if (w <= 0.0f) continue;
            for (int c = 0; c < dst.n; ++c) acc[p * dst.n + c] += w * layerPixels[p * dst.n + c];
        }
    }
    for (int64_t y = 0; y < height; ++y)
        std::copy_n(acc.data() + y * width * dst.n, width * dst.n, dst.at(out->x1, out->y1 + y));
    return ERROR_NONE;
}

}  // namespace

int ImageBlur(const Image* out, const Image* in, const Image* control, float sizeX, float sizeY,
              float controlScale, int64_t layers, uint64_t controlChannel, FilterType filter) {
    if (int status = CheckNeighbourhood("ImageBlur", out, in, GetFilterPadding(sizeX),
                                        GetFilterPadding(sizeY)))
        return status;
    return blendLayers("ImageBlur", out, control, controlChannel, controlScale, layers,
                       [&](const Image* layer, float fraction) {
                           return FastFilter(layer, in, filter, sizeX * fraction, filter,
                                             sizeY * fraction);
                       });
}

int NonPhysicalDepthOfField(const Image* out, const Image* in, const Image* coc,
                            uint64_t cocChannel, float cocScale, float maxCoc, int64_t layers,
                            const ApertureShape& aperture) {
    int64_t padX, padY;
    GetDefocusPadding(maxCoc, aperture.aspect, aperture.blades, aperture.rotation, aperture.smooth,
                      padX, padY);
    if (int status = CheckNeighbourhood("NonPhysicalDepthOfField", out, in, padX, padY))
        return status;
    const float scale = maxCoc > 0.0f ? cocScale / maxCoc : 0.0f;
    return blendLayers("NonPhysicalDepthOfField", out, coc, cocChannel, scale, layers,
                       [&](const Image* layer, float fraction) {
                           return Defocus(layer, in, maxCoc * fraction, aperture.aspect,
                                          aperture.blades, aperture.rotation, aperture.smooth);
                       });
}

}  // namespace IMGLIB
