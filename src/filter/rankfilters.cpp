// Median, erode/dilate and bilateral filters: single-input neighbourhood
// operators with a fixed window.
#include "imglib/rankfilters.h"
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/bilateral.h"

namespace TESSERA {
namespace Private {

class MedianFilterTask : public NeighbourhoodTask {
public:
    MedianFilterTask(const std::string& name, float time, const MedianFilterParams& p,
                     TaskPtr input)
        : NeighbourhoodTask(name, time, "MedianFilter", std::move(input)), m_p(p) {
        setPadding(IMGLIB::GetMedianPadding(p.sizeX), IMGLIB::GetMedianPadding(p.sizeY));
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_p.sizeX << "," << m_p.sizeY << "," << m_p.circular << "," << m_p.threshold;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::MedianFilter(out, in[0], m_p.sizeX, m_p.sizeY, m_p.circular, m_p.threshold));
    }

private:
    MedianFilterParams m_p;
};

class ErodeDilate : public NeighbourhoodTask {
public:
    ErodeDilate(const std::string& name, float time, const ErodeDilateParams& p, TaskPtr input)
        : NeighbourhoodTask(name, time, "ErodeDilate", std::move(input)), m_p(p) {
        setPadding(IMGLIB::GetErodeDilatePadding(p.radiusX),
                   IMGLIB::GetErodeDilatePadding(p.radiusY));
    }

protected:
    void describe(CacheIDStream& s) override { s << m_p.radiusX << "," << m_p.radiusY; }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::ErodeOrDilate(out, in[0], m_p.radiusX, m_p.radiusY));
    }

private:
    ErodeDilateParams m_p;
};

class BilateralFilterTask : public NeighbourhoodTask {
public:
    BilateralFilterTask(const std::string& name, float time, const BilateralFilterParams& p,
                        TaskPtr input)
        : NeighbourhoodTask(name, time, "BilateralFilter", std::move(input)), m_p(p) {
        setPadding(p.radiusX, p.radiusY);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_p.radiusX << "," << m_p.radiusY << "," << m_p.sigmaSpatial << "," << m_p.sigmaRange;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::BilateralFilter(out, in[0], m_p.radiusX, m_p.radiusY, m_p.sigmaSpatial,
                                      m_p.sigmaRange));
    }

private:
    BilateralFilterParams m_p;
};

}  // namespace Private

TaskPtr createMedianFilterTask(const std::string& name, float time,
                               const MedianFilterParams& params, TaskPtr input) {
    return TaskPtr(new Private::MedianFilterTask(name, time, params, std::move(input)));
}

TaskPtr createErodeDilateTask(const std::string& name, float time, const ErodeDilateParams& params,
                              TaskPtr input) {
    return TaskPtr(new Private::ErodeDilate(name, time, params, std::move(input)));
}

TaskPtr createBilateralFilterTask(const std::string& name, float time,
                                  const BilateralFilterParams& params, TaskPtr input) {
    return TaskPtr(new Private::BilateralFilterTask(name, time, params, std::move(input)));
}

}  // namespace TESSERA
