// A task's cache ID is its identity: two tasks with one ID share cached
// tiles. So changing any one parameter of any operation must change the ID,
// or leave every pixel as it was; otherwise the tile cache serves the old
// pixels for the new value. Each parameter is swept to its other declared
// values (default, example, choices) and to a second valid value, one
// component at a time, so an ID that drops sizeY but keeps sizeX is caught.
#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>

#include "generatortasks.h"
#include "graphfile.h"
#include "inplacetask.h"
#include "support/serial_render.h"
#include "support/sweep_graph.h"
#include "support/watchdog.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using json = nlohmann::json;

namespace {

std::vector<float> render(const RenderDescription& output) {
    auto observer = make<RecordingObserver>();
    RenderManager::Render({output}, observer, nullptr, true, RENDERTYPE_BATCH);
    if (observer->status != RenderStatus::Success)
        throw std::runtime_error("render failed: " + observer->message);
    std::vector<float> pixels;
    for (int64_t y = output.rect.ymin; y < output.rect.ymax; ++y)
        for (int64_t x = output.rect.xmin; x < output.rect.xmax; ++x) {
            const Imath::Color4<float> c = observer->pixel(0, x, y);
            pixels.insert(pixels.end(), {c.r, c.g, c.b, c.a});
        }
    return pixels;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

void forgetEverything() {
    RenderManager::ClearRenderTaskCache();
    RenderManager::clearSpeculativeCache();
}

// What goes wrong when `variant` follows `base`: empty when nothing does.
// The variant is rendered alone, then again right after the base, when
// every tile the base left in the cache is there to be taken.
std::string identityFault(const std::function<RenderDescription()>& base,
                          const std::function<RenderDescription()>& variant) {
    forgetEverything();
    const RenderDescription alone = variant();
    const std::string variantID = alone.task->getCacheID();
    const std::vector<float> expected = render(alone);
    forgetEverything();
    const RenderDescription first = base();
    const std::string baseID = first.task->getCacheID();
    const std::vector<float> basePixels = render(first);
    const std::vector<float> after = render(variant());
    if (!sameBits(after, expected)) return "the tile cache served other pixels";
    if (baseID == variantID && !sameBits(basePixels, expected))
        return "the cache ID did not change, the pixels did";
    return {};
}

struct Range {
    double low = -INFINITY, high = INFINITY;
    bool holds(double v) const { return std::isfinite(v) && v >= low && v <= high; }
};

Range rangeOf(const OperationParameter& p) {
    return p.range.empty() ? Range{} : Range{p.low, p.high};
}

// Other valid numbers beside v: one a step away that is not a round
// fraction of anything, one close by (a change too small to move anything
// else the ID holds, such as a filter's padding).
std::vector<double> nudged(double v, const Range& range, bool integral) {
    std::vector<double> found;
    const double scale = std::max(1.0, std::abs(v));
    const std::vector<double> steps =
        integral ? std::vector<double>{1, -1} : std::vector<double>{0.37 * scale, -0.37 * scale};
    for (double step : steps)
        if (range.holds(v + step)) {
            found.push_back(v + step);
            break;
        }
    if (!integral)
        for (double step : {0.013 * scale, -0.013 * scale})
            if (range.holds(v + step)) {
                found.push_back(v + step);
                break;
            }
    if (found.empty() && range.holds((range.low + range.high) / 2) &&
        (range.low + range.high) / 2 != v)
        found.push_back(integral ? std::round((range.low + range.high) / 2)
                                 : (range.low + range.high) / 2);
    return found;
}

// Values of one parameter other than `current`: the declared ones, then
// each component of the value nudged alone.
std::vector<json> otherValues(const OperationParameter& p, const json& current) {
    std::vector<json> values;
    auto add = [&](const json& v) {
        if (v != current && std::find(values.begin(), values.end(), v) == values.end())
            values.push_back(v);
    };
    if (!p.defaultValue.empty()) add(json::parse(p.defaultValue));
    if (!p.example.empty()) add(json::parse(p.example));
    for (const std::string& choice : p.choices) add(choice);
    const Range range = rangeOf(p);
    const bool integral = p.type == "integer" || p.type == "[xmin, ymin, xmax, ymax]";
    if (current.is_boolean()) add(!current.get<bool>());
    if (current.is_number())
        for (double v : nudged(current.get<double>(), range, integral)) add(v);
    if (current.is_array())
        for (size_t i = 0; i < current.size(); ++i) {
            if (!current[i].is_number()) continue;
            for (double v : nudged(current[i].get<double>(), range, integral)) {
                json changed = current;
                changed[i] = v;
                add(changed);
            }
        }
    return values;
}

// Parameter values as sweepGraph takes them: JSON text.
std::map<std::string, std::string> asText(const std::map<std::string, json>& values) {
    std::map<std::string, std::string> text;
    for (const auto& [name, value] : values) text[name] = value.dump();
    return text;
}

bool loads(const std::string& graph, const SweepFiles& files) {
    try {
        loadGraph(graph, files.dir.string());
        return true;
    } catch (const GraphFileError&) {
        return false;
    }
}

// Every parameter's value in the base graph: its example, or else a number
// moved off its default where the graph takes it, so that no parameter
// sits at a value that switches the operation off (a contrast of 1 makes
// its pivot meaningless).
std::map<std::string, json> engagedValues(const OperationDescription& op, const SweepFiles& files) {
    std::map<std::string, json> values;
    for (const OperationParameter& p : op.parameters) {
        if (!p.example.empty() || p.defaultValue.empty()) {
            if (!p.example.empty()) values[p.name] = json::parse(p.example);
            continue;
        }
        values[p.name] = json::parse(p.defaultValue);
        if (p.type == "bool" || !p.choices.empty()) continue;
        std::vector<json> candidates = otherValues(p, values[p.name]);
        if (values[p.name].is_array()) {
            // Every component moved first: a contrast of [1.37, 1, 1, 1]
            // would leave the pivot's green and blue meaningless.
            json all = values[p.name];
            for (size_t i = 0; i < all.size(); ++i)
                if (auto v = nudged(all[i].get<double>(), rangeOf(p),
                                    p.type == "[xmin, ymin, xmax, ymax]");
                    !v.empty())
                    all[i] = v.front();
            candidates.insert(candidates.begin(), all);
        }
        for (const json& moved : candidates) {
            std::map<std::string, json> tried = values;
            tried[p.name] = moved;
            if (loads(sweepGraph(op, files, asText(tried)), files)) {
                values = tried;
                break;
            }
        }
    }
    return values;
}

}  // namespace

TEST(IdentitySweep, ChangingAnyParameterChangesTheCacheIDOrNoPixel) {
    OIIO::attribute("threads", 1);
    const SweepFiles files;
    RenderManager::setGlobalTileSize(32, 32);
    RenderManager::setSpeculativeCachingEnable(true);
    int checked = 0, refused = 0;
    std::vector<std::string> faults;
    withinSeconds(1200, "the identity sweep", [&] {
        for (const OperationDescription& op : listOperations()) {
            const std::map<std::string, json> engaged = engagedValues(op, files);
            auto graphWith = [&](const std::string& name, const json& value) {
                std::map<std::string, json> values = engaged;
                values[name] = value;
                return sweepGraph(op, files, asText(values));
            };
            for (const OperationParameter& p : op.parameters) {
                if (p.type == "path") continue;  // a file's identity is its path and date
                const json current = engaged.at(p.name);
                const std::string baseGraph = graphWith(p.name, current);
                for (const json& value : otherValues(p, current)) {
                    const std::string variantGraph = graphWith(p.name, value);
                    if (!loads(variantGraph, files)) {
                        ++refused;  // a value this graph cannot take
                        continue;
                    }
                    auto build = [&](const std::string& graph) {
                        return [&] {
                            return loadGraph(graph, files.dir.string()).outputs[0].description;
                        };
                    };
                    std::string fault;
                    try {
                        fault = identityFault(build(baseGraph), build(variantGraph));
                    } catch (const std::exception& e) {
                        fault = e.what();
                    }
                    ++checked;
                    if (!fault.empty())
                        faults.push_back(op.name + "." + p.name + " " + current.dump() + " -> " +
                                         value.dump() + ": " + fault);
                }
            }
        }
    });
    RenderManager::setGlobalTileSize(256, 256);
    forgetEverything();
    std::cout << checked << " changes checked, " << refused << " refused by the graph\n";
    EXPECT_GT(checked, 500);
    for (const std::string& fault : faults) ADD_FAILURE() << fault;
}

namespace {

// out = in * gain + offset, whose ID forgets the offset.
class ForgetfulGainOp : public InPlaceOp {
public:
    ForgetfulGainOp(float gain, float offset) : m_gain(gain), m_offset(offset) {}
    void computeCacheID(CacheIDStream& s) override { s << m_gain; }
    int apply(const IMGLIB::Image* out, const IMGLIB::Image* in) override {
        const int n = IMGLIB::GetChannelCount(out->channels);
        for (int64_t y = out->y1; y < out->y2; ++y) {
            const float* src = IMGLIB::GetPixelAddress(in, out->x1, y, 4 * n);
            float* dst = IMGLIB::GetPixelAddress(out, out->x1, y, 4 * n);
            for (int64_t i = 0; i < out->width() * n; ++i) dst[i] = src[i] * m_gain + m_offset;
        }
        return IMGLIB::ERROR_NONE;
    }
    std::string getTypeString() override { return "ForgetfulGain"; }
    Imath::Color4<float> applyToColor(const Imath::Color4<float>& c) override {
        return c * m_gain + Imath::Color4<float>(m_offset);
    }

private:
    float m_gain, m_offset;
};

}  // namespace

TEST(IdentitySweep, CatchesAnIDThatForgetsAParameter) {
    const UTIL::Rect area(0, 0, 40, 30);
    auto gained = [&](float offset) {
        return [&, offset] {
            TaskPtr source =
                createCheckerboardTask("board", 0, Imath::Color4<float>(1, 0.5f, 0.25f, 1),
                                       Imath::Color4<float>(0, 0.1f, 0.2f, 0.5f), 7, area);
            TaskPtr task(new InPlaceTask(InPlaceOpPtr(new ForgetfulGainOp(2.0f, offset)), "gain", 0,
                                         source));
            return RenderDescription(task, area, IMGLIB::CHANNELS_RGBA);
        };
    };
    withinSeconds(60, "the forgetful operator", [&] {
        EXPECT_EQ(identityFault(gained(0.0f), gained(0.0f)), "");
        EXPECT_NE(identityFault(gained(0.0f), gained(0.5f)), "");
    });
    forgetEverything();
}
