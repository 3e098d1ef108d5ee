// Convolution by a kernel image, and the kernel's normalisation to unit
// energy.
#include "imglib/convolve.h"
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/pixels.h"
#include "imglib/pointops.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

namespace {

// A colour matrix dividing R, G, B and A by the sums (sums of 0 divide by 1).
void divisionMatrix(const double sum[4], float matrix[20]) {
    std::fill(matrix, matrix + 20, 0.0f);
    for (int c = 0; c < 4; ++c) matrix[5 * c + c] = sum[c] != 0.0 ? float(1.0 / sum[c]) : 1.0f;
}

}  // namespace

class ImageConvolveTask : public NeighbourhoodTask {
public:
    ImageConvolveTask(const std::string& name, float time, bool normalize,
                      const ImageConvolveParams& p, TaskPtr image, TaskPtr kernel)
        : NeighbourhoodTask(name, time, "ImageConvolve", std::move(image)),
          m_normalize(normalize),
          m_p(p) {
        addAuxiliaryInput(std::move(kernel), kAllDefinedChannels, 0, 0);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_normalize << "," << m_p.kernelRect << "," << m_p.centred << "," << m_p.centreX << ","
          << m_p.centreY;
    }
    UTIL::Region computeOutputDataRegion() override {
        // The kernel's area is known once its input is described.
        m_kernelRect =
            m_p.kernelRect.isNull() ? getDefinedInputDataRegion(1).boundingBox() : m_p.kernelRect;
        m_centreX = m_p.centred ? (m_kernelRect.xmin + m_kernelRect.xmax - 1) / 2 : m_p.centreX;
        m_centreY = m_p.centred ? (m_kernelRect.ymin + m_kernelRect.ymax - 1) / 2 : m_p.centreY;
        UTIL::Region region;
        for (const UTIL::Rect& r : getDefinedInputDataRegion(0).rects())
            region.add(IMGLIB::GetImageConvolveOutputRect(r, m_kernelRect, m_centreX, m_centreY));
        return region;
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects = {
            IMGLIB::GetImageConvolveInputRect(outputRect, m_kernelRect, m_centreX, m_centreY),
            m_kernelRect};
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        if (m_kernelRect.isNull()) {  // an empty kernel: nothing passes
            check(IMGLIB::Clear(out));
            return;
        }
        check(IMGLIB::ImageConvolve(out, in[0], in[1], m_centreX, m_centreY));
        if (!m_normalize) return;
        IMGLIB::Stats stats;
        check(IMGLIB::QueryStats(in[1], &stats));
        // A grey kernel (one channel) weighs every channel by its sum.
        double sums[4];
        const uint64_t kernelChannels = in[1]->channels;
        const int first = __builtin_ctzll(kernelChannels);
        for (int c = 0; c < 4; ++c)
            sums[c] = stats.sum[(kernelChannels >> c) & 1 ? c : std::min(first, 3)];
        float matrix[20];
        divisionMatrix(sums, matrix);
        check(IMGLIB::ColorMatrix(out, out, matrix));
    }

private:
    bool m_normalize;
    ImageConvolveParams m_p;
    UTIL::Rect m_kernelRect;
    int64_t m_centreX = 0, m_centreY = 0;
};

class EnergyNormalization : public NeighbourhoodTask {
public:
    EnergyNormalization(const std::string& name, float time, const UTIL::Rect& rect, TaskPtr kernel)
        : NeighbourhoodTask(name, time, "EnergyNormalization", std::move(kernel)), m_rect(rect) {}

protected:
    void describe(CacheIDStream& s) override { s << m_rect; }
    UTIL::Region computeOutputDataRegion() override {
        m_sumRect = m_rect.isNull() ? getDefinedInputDataRegion(0).boundingBox() : m_rect;
        return getDefinedInputDataRegion(0);
    }
    // Every tile reads the whole area it sums over.
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(1, m_sumRect.isNull() ? outputRect : outputRect.boundingBox(m_sumRect));
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        IMGLIB::Image area, here;
        IMGLIB::Stats stats;
        if (!m_sumRect.isNull()) {
            check(IMGLIB::GetSubImage(in[0], m_sumRect.xmin, m_sumRect.ymin, m_sumRect.xmax,
                                      m_sumRect.ymax, &area));
            check(IMGLIB::QueryStats(&area, &stats));
        }
        float matrix[20];
        divisionMatrix(stats.sum, matrix);
        check(IMGLIB::GetSubImage(in[0], out->x1, out->y1, out->x2, out->y2, &here));
        check(IMGLIB::ColorMatrix(out, &here, matrix));
    }

private:
    UTIL::Rect m_rect, m_sumRect;
};

}  // namespace Private

TaskPtr createImageConvolveTask(const std::string& name, float time, bool normalize,
                                const ImageConvolveParams& params, TaskPtr image, TaskPtr kernel) {
    if (!image) throw UTIL::ErrorException("ImageConvolve requires an input.");
    if (!kernel) throw UTIL::ErrorException("ImageConvolve requires an kernel input.");
    Private::checkParameters("convolve", name, {{"kernelArea", params.kernelRect}});
    return TaskPtr(new Private::ImageConvolveTask(name, time, normalize, params, std::move(image),
                                                  std::move(kernel)));
}

TaskPtr createEnergyNormalizationTask(const std::string& name, float time, const UTIL::Rect& rect,
                                      TaskPtr kernel) {
    if (!kernel) throw UTIL::ErrorException("EnergyNormalization requires an kernel input.");
    return TaskPtr(new Private::EnergyNormalization(name, time, rect, std::move(kernel)));
}

namespace Private {

void declareConvolveOperations(OperationList& ops) {
    ops.push_back(
        {"convolve",
         "convolution by the pixels of a kernel image",
         {Param{"normalize", ParamType::Bool, true,
                "divide each channel by the sum of its kernel weights"},
          Param{"kernelArea", ParamType::Rect, json::array({0, 0, 0, 0}),
                "the part of the kernel image used, centred on the pixel (empty: its data)"}
              .anyValue()},
         {"input", "kernel"},
         [](const OperationArgs& a) {
             ImageConvolveParams p;
             p.kernelRect = a.rect("kernelArea");
             return createImageConvolveTask(a.node(), a.time(), a.flag("normalize"), p,
                                            a.input("input"), a.input("kernel"));
         }});
    ops.push_back({"energynormalize",
                   "a kernel divided by its sum over an area (its data when empty)",
                   {Param{"area", ParamType::Rect, json::array({0, 0, 0, 0}),
                          "the area summed (empty: the kernel's data)"}
                        .anyValue()},
                   {"kernel"},
                   [](const OperationArgs& a) {
                       return createEnergyNormalizationTask(a.node(), a.time(), a.rect("area"),
                                                            a.input("kernel"));
                   }});
    ops.back().aliases = {"energyNormalize"};
}

}  // namespace Private

}  // namespace TESSERA
