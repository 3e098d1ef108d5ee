// Every numeric parameter of every operation at the ends of its range and
// far beyond it: each graph is refused with one line naming the node and
// the parameter, or renders without a NaN, and never hangs. The cases come
// from the declarations, so a parameter declared later joins the sweep.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "renderimage.h"
#include "rendermanager.h"
#include "support/sweep_graph.h"
#include "support/watchdog.h"

using namespace TESSERA;
using namespace TESSERA::testing;

namespace {

// A parameter's hostile values, as JSON text.
std::vector<std::string> hostileValues(const OperationParameter& p) {
    std::vector<std::string> scalars = {"1e39", "-1e39", "3e38", "-3e38", "1e9", "-1e9", "0"};
    if (!p.range.empty()) {
        std::ostringstream l, h;
        l.precision(17), h.precision(17);
        l << p.low, h << p.high;
        scalars.insert(scalars.end(), {l.str(), h.str()});
    }
    if (p.type == "number" || p.type == "integer") return scalars;
    if (p.type == "[xmin, ymin, xmax, ymax]")
        return {"[0, 0, 1e12, 1e12]", "[0, 0, -5, -5]",         "[5, 5, 0, 0]",
                "[0, 0, 0, 0]",       "[-1e9, -1e9, 1e9, 1e9]", "[0.5, 0, 4, 4]"};
    int count = 0;
    if (p.type == "[r, g, b, a]") count = 4;
    if (p.type == "[r, g, b]") count = 3;
    if (p.type == "[x, y]") count = 2;
    if (p.type == "[9 numbers]") count = 9;
    if (p.type == "[numbers]") count = 3;
    std::vector<std::string> arrays;
    for (const std::string& v : scalars) {
        std::string a = "[";
        for (int i = 0; i < count; ++i) a += (i ? ", " : "") + v;
        if (count) arrays.push_back(a + "]");
    }
    return arrays;
}

struct Outcome {
    int refused = 0, failed = 0, rendered = 0;
    std::vector<std::string> faults;
};

void tryCase(const OperationDescription& op, const OperationParameter& p, const std::string& value,
             const SweepFiles& files, Outcome& outcome) {
    const std::string what = op.name + "." + p.name + " = " + value;
    // Which case a crash happened in: TESSERA_HOSTILE_TRACE=1 names each.
    static const bool trace = std::getenv("TESSERA_HOSTILE_TRACE") != nullptr;
    if (trace) std::fprintf(stderr, "case %s\n", what.c_str());
    Graph graph;
    try {
        graph = loadGraph(sweepGraph(op, files, {{p.name, value}}), files.dir.string());
    } catch (const GraphFileError& e) {
        const std::string message = e.what();
        ++outcome.refused;
        if (message.find('\n') != std::string::npos || message.find("'op'") == std::string::npos)
            outcome.faults.push_back(what +
                                     ": refused without naming the node on one line: " + message);
        return;
    } catch (const std::exception& e) {
        outcome.faults.push_back(what + ": refused with a " + typeid(e).name() + ": " + e.what());
        return;
    }
    try {
        const RenderedImage image =
            renderImage(graph.outputs[0].description.task, kSweepRender, IMGLIB::CHANNELS_RGBA);
        for (float v : image.pixels)
            if (std::isnan(v)) {
                outcome.faults.push_back(what + ": NaN pixels with success");
                return;
            }
        ++outcome.rendered;
    } catch (const std::exception& e) {
        ++outcome.failed;
        if (std::string(e.what()).find("overran") != std::string::npos)
            outcome.faults.push_back(what + ": the allocator overran for good: " + e.what());
        if (trace) std::fprintf(stderr, "failed: %s\n", e.what());
        if (std::string(e.what()).find('\n') != std::string::npos)
            outcome.faults.push_back(what + ": an error of several lines: " + e.what());
    }
}

}  // namespace

TEST(HostileParameters, EveryCaseIsRefusedOrRendersWithoutNaN) {
    OIIO::attribute("threads", 1);
    const SweepFiles files;
    Outcome outcome;
    withinSeconds(900, "the hostile-parameter sweep", [&] {
        for (const OperationDescription& op : listOperations())
            for (const OperationParameter& p : op.parameters)
                for (const std::string& value : hostileValues(p)) {
                    RenderManager::ClearRenderTaskCache();
                    tryCase(op, p, value, files, outcome);
                }
    });
    std::string faults;
    for (const std::string& f : outcome.faults) faults += f + "\n";
    EXPECT_TRUE(outcome.faults.empty()) << outcome.faults.size() << " faults:\n" << faults;
    std::printf("%d cases refused, %d failed to render, %d rendered; %zu faults\n", outcome.refused,
                outcome.failed, outcome.rendered, outcome.faults.size());
    EXPECT_GT(outcome.refused + outcome.failed + outcome.rendered, 1000);
}
