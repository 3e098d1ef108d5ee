// Median, erode/dilate and bilateral filters: single-input neighbourhood
// operators with a fixed window.
#include "imglib/rankfilters.h"
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/bilateral.h"
#include "private/operation.h"

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

namespace Private {

void declareRankFilterOperations(OperationList& ops) {
    ops.push_back({"median",
                   "median of a window",
                   {{"size", ParamType::Vec2, json::array({3, 3})},
                    {"circular", ParamType::Bool, false},
                    {"threshold", ParamType::Number, 0}},
                   {"input"},
                   [](const OperationArgs& a) {
                       const MedianFilterParams p{a.vec2("size").x, a.vec2("size").y,
                                                  a.flag("circular"), a.number("threshold")};
                       return createMedianFilterTask(a.node(), a.time(), p, a.input("input"));
                   }});
    ops.push_back({"erodeDilate",
                   "dilation (positive radii) or erosion (negative)",
                   {required("radius", ParamType::Vec2, {5, 3})},
                   {"input"},
                   [](const OperationArgs& a) {
                       const ErodeDilateParams p{a.vec2("radius").x, a.vec2("radius").y};
                       return createErodeDilateTask(a.node(), a.time(), p, a.input("input"));
                   }});
    ops.push_back({"bilateral",
                   "edge-preserving blur",
                   {{"radius", ParamType::Vec2, json::array({5, 5})},
                    {"sigmaSpatial", ParamType::Number, 3},
                    {"sigmaRange", ParamType::Number, 0.1}},
                   {"input"},
                   [](const OperationArgs& a) {
                       const Imath::V2f r = a.vec2("radius");
                       if (r.x < 0 || r.y < 0 || r.x > 1000 || r.y > 1000)
                           a.fail("radius", "must be 0 to 1000");
                       const BilateralFilterParams p{uint32_t(r.x), uint32_t(r.y),
                                                     a.number("sigmaSpatial"),
                                                     a.number("sigmaRange")};
                       return createBilateralFilterTask(a.node(), a.time(), p, a.input("input"));
                   }});
}

}  // namespace Private

}  // namespace TESSERA
