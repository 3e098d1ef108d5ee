// Unsharp masking from an image and a blurred copy of it.
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/sharpen.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {

class UnSharp : public NeighbourhoodTask {
public:
    UnSharp(const std::string& name, float time, const Imath::Color4<float>& amount,
            const Imath::Color4<float>& threshold, TaskPtr image, TaskPtr blurred)
        : NeighbourhoodTask(name, time, "UnSharp", std::move(image)),
          m_amount(amount),
          m_threshold(threshold) {
        addAuxiliaryInput(std::move(blurred), 0, 0, 0);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_amount.r << "," << m_amount.g << "," << m_amount.b << "," << m_amount.a << ","
          << m_threshold.r << "," << m_threshold.g << "," << m_threshold.b << "," << m_threshold.a;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        const float amount[4] = {m_amount.r, m_amount.g, m_amount.b, m_amount.a};
        const float threshold[4] = {m_threshold.r, m_threshold.g, m_threshold.b, m_threshold.a};
        check(IMGLIB::UnsharpMaskFromBlur(out, in[0], in[1], amount, threshold));
    }

private:
    Imath::Color4<float> m_amount, m_threshold;
};

}  // namespace Private

TaskPtr createUnSharpTask(const std::string& name, float time, Imath::Color4<float> amount,
                          Imath::Color4<float> threshold, TaskPtr image, TaskPtr blurred) {
    if (!image) throw UTIL::ErrorException("UnSharp requires an input.");
    if (!blurred) throw UTIL::ErrorException("UnSharp requires a blurred input.");
    Private::checkParameters("unsharp", name, {{"amount", amount}, {"threshold", threshold}});
    return TaskPtr(
        new Private::UnSharp(name, time, amount, threshold, std::move(image), std::move(blurred)));
}

namespace Private {

void declareSharpenOperations(OperationList& ops) {
    ops.push_back({"unsharp",
                   "input + amount (input - blurred) where the difference exceeds the threshold",
                   {Param{"amount", ParamType::Color4, json::array({1, 1, 1, 0}),
                          "per channel, the factor of the detail (input − blurred) added"}
                        .anyValue(),
                    Param{"threshold", ParamType::Color4, json::array({0, 0, 0, 0}),
                          "per channel, the detail below which nothing is added"}
                        .atLeast(0)},
                   {"input", "blurred"},
                   [](const OperationArgs& a) {
                       return createUnSharpTask(a.node(), a.time(), a.color("amount"),
                                                a.color("threshold"), a.input("input"),
                                                a.input("blurred"));
                   }});
}

}  // namespace Private

}  // namespace TESSERA
