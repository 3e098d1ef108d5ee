// An operation's declaration is its contract: every parameter says what it
// means and which values it takes, and a value outside them is refused
// with the node, the parameter and the value named, whether the node comes
// from a graph file or is built from C++ (as the Python module builds it).
// The reference shows a picture of each operation's example, which must be
// what the current declaration renders.
#include <gtest/gtest.h>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "colortasks.h"
#include "compositetasks.h"
#include "exceptions.h"
#include "filtertasks.h"
#include "generatortasks.h"
#include "geometrytasks.h"
#include "graphfile.h"
#include "support/sweep_graph.h"
#include "transformtasks.h"

using namespace TESSERA;
using namespace TESSERA::testing;
using json = nlohmann::json;

namespace {

bool isNumeric(const OperationParameter& p) {
    return p.type != "bool" && p.type != "string" && p.type != "path" && p.type != "name" &&
           p.choices.empty();
}

// Values just outside the declared range, as the parameter's type holds
// them (every component of an array the same).
std::vector<json> outsideValues(const OperationParameter& p) {
    const bool integral = p.type == "integer" || p.type == "[xmin, ymin, xmax, ymax]";
    const double step = integral ? 1.0 : std::max(1e-3, std::abs(p.high - p.low) * 1e-3);
    std::vector<json> values;
    // As many numbers as the parameter's own value holds (two for an empty
    // list).
    const json shape = json::parse(p.defaultValue.empty() ? p.example : p.defaultValue);
    for (double v : {p.low - step, p.high + step}) {
        const json scalar = integral ? json(int64_t(v)) : json(v);
        values.push_back(shape.is_array()
                             ? json(std::vector<json>(std::max<size_t>(shape.size(), 2), scalar))
                             : scalar);
    }
    return values;
}

}  // namespace

TEST(Declarations, EveryParameterSaysWhatItMeansAndWhatItTakes) {
    int parameters = 0;
    for (const OperationDescription& op : listOperations()) {
        EXPECT_FALSE(op.summary.empty()) << op.name;
        for (const OperationParameter& p : op.parameters) {
            ++parameters;
            EXPECT_FALSE(p.description.empty()) << op.name << "." << p.name << " has no meaning";
            if (isNumeric(p)) {
                EXPECT_FALSE(p.range.empty()) << op.name << "." << p.name << " has no range";
                EXPECT_TRUE(std::isfinite(p.low) && std::isfinite(p.high) && p.low <= p.high)
                    << op.name << "." << p.name << ": " << p.range;
            }
            if (p.type == "name") {
                EXPECT_FALSE(p.choices.empty()) << op.name << "." << p.name;
            }
        }
    }
    EXPECT_GT(parameters, 250);
}

TEST(Declarations, OneLowerCaseNamePerOperationWithItsOlderNamesStillAccepted) {
    std::set<std::string> names;
    for (const OperationDescription& op : listOperations()) {
        for (char c : op.name)
            EXPECT_TRUE(std::islower(static_cast<unsigned char>(c)) || std::isdigit(c)) << op.name;
        EXPECT_TRUE(names.insert(op.name).second) << op.name << " is declared twice";
        for (const std::string& alias : op.aliases) {
            EXPECT_TRUE(names.insert(alias).second) << alias << " names two operations";
            EXPECT_EQ(describeOperation(alias), describeOperation(op.name));
        }
    }
    // A graph file of an older name loads as the operation it names.
    const Graph graph = loadGraph(
        R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}},
                      {"id": "r", "op": "radialBlur", "params": {"centre": [4, 4]},
                       "inputs": {"input": "c"}}],
            "outputs": [{"node": "r"}]})");
    EXPECT_EQ(graph.outputs.size(), 1u);
}

TEST(Declarations, ValuesOutsideTheRangeAreRefusedNamingNodeParameterAndValue) {
    const SweepFiles files;
    const TaskPtr plate =
        createConstantTask("plate", 0, Imath::Color4<float>(0.5f), UTIL::Rect(0, 0, 8, 8));
    int refusals = 0;
    for (const OperationDescription& op : listOperations()) {
        std::map<std::string, TaskPtr> inputs;
        for (const std::string& input : op.inputs) inputs[input] = plate;
        for (const OperationParameter& p : op.parameters) {
            if (!isNumeric(p)) continue;
            for (const json& value : outsideValues(p)) {
                const std::string what = op.name + "." + p.name + " = " + value.dump();
                try {
                    loadGraph(sweepGraph(op, files, {{p.name, value.dump()}}), files.dir.string());
                    ADD_FAILURE() << what << " was taken from a graph file";
                } catch (const GraphFileError& e) {
                    EXPECT_EQ(e.getNode(), "op") << what;
                    EXPECT_EQ(e.getField(), p.name) << what << ": " << e.what();
                    // The value in its shortest form (-1 for -1.0).
                    const std::string named =
                        std::regex_replace(value.dump(), std::regex(R"(\.0\b)"), "");
                    EXPECT_NE(std::string(e.what()).find(named), std::string::npos)
                        << what << ": " << e.what();
                }
                json params = json::object();
                for (const OperationParameter& q : op.parameters)
                    if (q.defaultValue.empty()) params[q.name] = json::parse(q.example);
                params[p.name] = value;
                try {
                    createOperationTask(op.name, "node", params.dump(), inputs, files.dir.string());
                    ADD_FAILURE() << what << " was taken from C++";
                } catch (const GraphFileError& e) {
                    EXPECT_EQ(e.getNode(), "node") << what;
                    EXPECT_EQ(e.getField(), p.name) << what << ": " << e.what();
                    ++refusals;
                }
            }
        }
    }
    EXPECT_GT(refusals, 300);
}

// The typed factories a host calls take the values their operator's
// declaration takes, and refuse the rest naming the task, the parameter
// and the value, as graph files do.
TEST(Declarations, TypedFactoriesRefuseWhatTheDeclarationRefuses) {
    const UTIL::Rect area(0, 0, 8, 8);
    const TaskPtr plate = createConstantTask("plate", 0, Imath::Color4<float>(0.5f), area);
    const float nan = std::nanf("");
    struct Case {
        std::string parameter, value;
        std::function<TaskPtr()> make;
    };
    const std::vector<Case> cases = {
        {"size", "[-9,5]",
         [&] {
             PerChannelBlurParameters p;
             p.blur.sizeX = -9, p.blur.sizeY = 5;
             return createBlurTask("t", 0, p, plate);
         }},
        {"size", "0",
         [&] {
             return createCheckerboardTask("t", 0, Imath::Color4<float>(1), Imath::Color4<float>(0),
                                           0.0f, area);
         }},
        {"gain", "[1,nan,1,1]",
         [&] { return createGainTask("t", 0, Imath::Color4<float>(1, nan, 1, 1), plate); }},
        {"gain", "[inf,1,1,1]",
         [&] { return createGainTask("t", 0, Imath::Color4<float>(INFINITY, 1, 1, 1), plate); }},
        {"operation", "99",
         [&] {
             return createMatteCombineTask("t", 0, static_cast<MatteOp>(99), true, plate, plate);
         }},
        {"filter", "99",
         [&] {
             ResizeParams p;
             p.filter = static_cast<IMGLIB::KernelType>(99);
             return createResizeTask("t", 0, p, plate);
         }},
        {"left", "-1",
         [&] {
             return createBorderTask("t", 0, -1, 0, 0, 0, IMGLIB::EXTEND_BACKGROUND,
                                     Imath::Color4<float>(0), plate);
         }},
        {"samples", "1",
         [&] {
             IMGLIB::RadialBlurParams p;
             p.samples = 1;
             return createRadialBlur("t", 0, p, IMGLIB::EXTEND_BACKGROUND, false, {}, plate);
         }},
        {"radius", "[3000,1]",
         [&] {
             ErodeDilateParams p;
             p.radiusX = 3000;
             return createErodeDilateTask("t", 0, p, plate);
         }},
        // Checks of one value the declaration cannot say, and of two values.
        {"rect", "[4,4,2,2]",
         [&] {
             return createCropTask("t", 0, {4, 4, 2, 2}, true, plate);
         }},
        {"high", "0.1", [&] { return createDifferenceKeyTask("t", 0, 0.5f, 0.1f, plate, plate); }},
    };
    for (const Case& c : cases) {
        try {
            c.make();
            ADD_FAILURE() << c.parameter << " = " << c.value << " was taken";
        } catch (const InvalidParameterException& e) {
            EXPECT_EQ(e.getTaskName(), "t");
            EXPECT_EQ(e.getParameter(), c.parameter) << e.what();
            EXPECT_NE(e.getReason().find(c.value), std::string::npos) << e.what();
        }
    }
    // Conditions beyond the ranges are part of the declaration, and so of the reference.
    EXPECT_NE(describeOperation("differencekey").find("and: high is at least low"),
              std::string::npos);
    // A graph file's node names the same parameter.
    try {
        loadGraph(R"({"nodes": [{"id": "c", "op": "constant", "params": {"area": [0, 0, 8, 8]}},
                                {"id": "k", "op": "differencekey",
                                 "params": {"low": 0.5, "high": 0.1},
                                 "inputs": {"a": "c", "b": "c"}}],
                     "outputs": [{"node": "k"}]})");
        ADD_FAILURE() << "high below low was taken from a graph file";
    } catch (const GraphFileError& e) {
        EXPECT_EQ(e.getNode(), "k");
        EXPECT_EQ(e.getField(), "high") << e.what();
    }
}

TEST(Declarations, EveryOperationHasItsPictureAsItsExampleRendersNow) {
    namespace fs = std::filesystem;
    const fs::path docs = fs::path(TESSERA_DOCS) / "operators";
    const fs::path fresh =
        fs::temp_directory_path() / ("tessera_pictures_test_" + std::to_string(getpid()));
    ASSERT_EQ(
        std::system((std::string(TESSERA_CLI_PATH) + " ops --pictures " + fresh.string()).c_str()),
        0);
    std::set<std::string> pictured;
    for (const fs::directory_entry& e : fs::directory_iterator(docs))
        pictured.insert(e.path().filename());
    for (const OperationDescription& op : listOperations()) {
        const std::string name = op.name + ".png";
        EXPECT_EQ(pictured.erase(name), 1u)
            << "docs/operators/" << name << " is missing (make docs)";
        OIIO::ImageBuf kept((docs / name).string()), now((fresh / name).string());
        if (!kept.read(0, 0, true, OIIO::TypeDesc::FLOAT)) continue;
        ASSERT_TRUE(now.read(0, 0, true, OIIO::TypeDesc::FLOAT)) << now.geterror();
        // A code value of rounding apart at most: vector widths differ
        // between machines, and with them the last bit of some functions.
        const auto comparison = OIIO::ImageBufAlgo::compare(kept, now, 1.01f / 255, 1.01f / 255);
        EXPECT_EQ(comparison.nfail, 0u)
            << "docs/operators/" << name << " is not what " << op.name
            << " renders now (make docs); max difference " << comparison.maxerror;
    }
    EXPECT_TRUE(pictured.empty()) << "a picture of no operation: " << *pictured.begin();
    fs::remove_all(fresh);
}
