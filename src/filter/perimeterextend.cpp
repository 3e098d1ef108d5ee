// Colour carried past the edge of a matte.
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/perimeter.h"
#include "private/operation.h"

namespace TESSERA {
namespace Private {

class PerimeterExtend : public NeighbourhoodTask {
public:
    PerimeterExtend(const std::string& name, float time, float distance, TaskPtr input)
        : NeighbourhoodTask(name, time, "PerimeterExtend", std::move(input)), m_distance(distance) {
        const int64_t pad = IMGLIB::GetPerimeterPadding(distance);
        setPadding(pad, pad);
        setChannelsAlwaysRead(IMGLIB::CHANNEL_A);  // the matte says which pixels are carried
    }

protected:
    void describe(CacheIDStream& s) override { s << m_distance; }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::ExtendImagePerimeter(out, in[0], m_distance));
    }

private:
    float m_distance;
};

}  // namespace Private

TaskPtr createPerimeterExtendTask(const std::string& name, float time, float distance,
                                  TaskPtr input) {
    Private::checkParameters("perimeterextend", name, {{"distance", distance}});
    return TaskPtr(new Private::PerimeterExtend(name, time, distance, std::move(input)));
}

namespace Private {

void declarePerimeterOperations(OperationList& ops) {
    ops.push_back({"perimeterextend",
                   "colour carried a distance past the matte's edge",
                   {required("distance", ParamType::Number, 6.5,
                             "how far past the matte's edge colour is carried, in pixels")
                        .range(0, 2048)},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createPerimeterExtendTask(a.node(), a.time(), a.number("distance"),
                                                        a.input("input"));
                   }});
    ops.back().aliases = {"perimeterExtend"};
}

}  // namespace Private

}  // namespace TESSERA
