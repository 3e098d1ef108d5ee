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
        // The colour distance weighs every channel; RGBA is filtered as one.
        setChannelsAlwaysRead(IMGLIB::CHANNELS_RGBA);
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
    Private::checkParameters(
        "median", name, {{"size", {params.sizeX, params.sizeY}}, {"threshold", params.threshold}});
    return TaskPtr(new Private::MedianFilterTask(name, time, params, std::move(input)));
}

TaskPtr createErodeDilateTask(const std::string& name, float time, const ErodeDilateParams& params,
                              TaskPtr input) {
    Private::checkParameters("erodedilate", name, {{"radius", {params.radiusX, params.radiusY}}});
    return TaskPtr(new Private::ErodeDilate(name, time, params, std::move(input)));
}

TaskPtr createBilateralFilterTask(const std::string& name, float time,
                                  const BilateralFilterParams& params, TaskPtr input) {
    Private::checkParameters("bilateral", name,
                             {{"radius", {params.radiusX, params.radiusY}},
                              {"sigmaSpatial", params.sigmaSpatial},
                              {"sigmaRange", params.sigmaRange}});
    return TaskPtr(new Private::BilateralFilterTask(name, time, params, std::move(input)));
}

namespace Private {

void declareRankFilterOperations(OperationList& ops) {
    ops.push_back(
        {"median",
         "median of a window",
         {Param{"size", ParamType::Vec2, json::array({3, 3}),
                "the window's width and height, in pixels (1 or less: no change)"}
              .range(0, 101),
          Param{"circular", ParamType::Bool, false,
                "an ellipse inscribed in the window (else the whole rectangle)"},
          Param{"threshold", ParamType::Number, 0,
                "replace only pixels that differ from the median by more than this (0: all)"}
              .atLeast(0)},
         {"input"},
         [](const OperationArgs& a) {
             const MedianFilterParams p{a.vec2("size").x, a.vec2("size").y, a.flag("circular"),
                                        a.number("threshold")};
             return createMedianFilterTask(a.node(), a.time(), p, a.input("input"));
         }});
    ops.push_back({"erodedilate",
                   "dilation (positive radii) or erosion (negative)",
                   {required("radius", ParamType::Vec2, {5, 3},
                             "the reach in x and y, in pixels: positive dilates, negative erodes")
                        .range(-2048, 2048)},
                   {"input"},
                   [](const OperationArgs& a) {
                       const ErodeDilateParams p{a.vec2("radius").x, a.vec2("radius").y};
                       return createErodeDilateTask(a.node(), a.time(), p, a.input("input"));
                   }});
    ops.back().aliases = {"erodeDilate"};
    ops.push_back(
        {"bilateral",
         "edge-preserving blur",
         {Param{"radius", ParamType::Vec2, json::array({5, 5}),
                "the window's half width and half height, in pixels"}
              .range(0, 100),
          Param{"sigmaSpatial", ParamType::Number, 3,
                "the spatial Gaussian's standard deviation, in pixels"}
              .range(1e-3, 65536),
          Param{"sigmaRange", ParamType::Number, 0.1,
                "the value difference's Gaussian's standard deviation (smaller keeps more edges)"}
              .range(1e-6, kMaxMagnitude)},
         {"input"},
         [](const OperationArgs& a) {
             const Imath::V2f r = a.vec2("radius");
             const BilateralFilterParams p{uint32_t(r.x), uint32_t(r.y), a.number("sigmaSpatial"),
                                           a.number("sigmaRange")};
             return createBilateralFilterTask(a.node(), a.time(), p, a.input("input"));
         }});
}

}  // namespace Private

}  // namespace TESSERA
