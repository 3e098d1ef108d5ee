// Edge detection and selection.
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/edges.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

class SobelEdgeDetectTask : public NeighbourhoodTask {
public:
    SobelEdgeDetectTask(const std::string& name, float time, const EdgeDetectParams& p,
                        TaskPtr input)
        : NeighbourhoodTask(name, time, "EdgeDetect", std::move(input)), m_p(p) {
        const int64_t pad = IMGLIB::GetEdgePadding(p.method == EDGE_BABU, p.select);
        setPadding(pad, pad);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << int(m_p.method) << "," << m_p.select << "," << m_p.threshold;
    }
    // A constant image has no edges.
    Imath::Color4<float> computeBackgroundColor() override {
        return Imath::Color4<float>(0, 0, 0, 0);
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        const bool babu = m_p.method == EDGE_BABU;
        if (m_p.select)
            check(babu ? IMGLIB::BabuEdgeSelect(out, in[0], m_p.threshold)
                       : IMGLIB::SobelEdgeSelect(out, in[0], m_p.threshold));
        else
            check(babu ? IMGLIB::BabuEdgeDetect(out, in[0]) : IMGLIB::SobelEdgeDetect(out, in[0]));
    }

private:
    EdgeDetectParams m_p;
};

}  // namespace Private

namespace Private {
const Choices<EdgeDetectMethod> kEdgeMethods = {{"sobel", EDGE_SOBEL}, {"babu", EDGE_BABU}};
}  // namespace Private

TaskPtr createEdgeDetectTask(const std::string& name, float time, const EdgeDetectParams& params,
                             TaskPtr input) {
    Private::checkParameters(
        "edgedetect", name,
        {{"method", Private::choiceValue(Private::kEdgeMethods, params.method)},
         {"threshold", params.threshold}});
    return TaskPtr(new Private::SobelEdgeDetectTask(name, time, params, std::move(input)));
}

namespace Private {

void declareEdgeOperations(OperationList& ops) {
    ops.push_back(
        {"edgedetect",
         "gradient magnitude, or thin 0/1 edges with select",
         {choiceParam("method", kEdgeMethods, "sobel",
                      "sobel: 3x3 gradients; babu: the Nevatia-Babu compass masks"),
          Param{"select", ParamType::Bool, false,
                "thin edges of 1 where the gradient is a local maximum above threshold, else 0"},
          Param{"threshold", ParamType::Number, 0.1, "the weakest gradient selected"}.atLeast(0)},
         {"input"},
         [](const OperationArgs& a) {
             const EdgeDetectParams p{a.choice(kEdgeMethods, "method"), a.flag("select"),
                                      a.number("threshold")};
             return createEdgeDetectTask(a.node(), a.time(), p, a.input("input"));
         }});
    ops.back().aliases = {"edgeDetect"};
}

}  // namespace Private

}  // namespace TESSERA
