// The compositing tasks: one task for every two-input operator, and the
// factory's table.
#include <array>

#include "colortasks.h"
#include "compositetasks.h"
#include "exceptions.h"
#include "imglib/channels.h"
#include "imglib/compositeops.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "private/operation.h"

namespace TESSERA {
namespace Private {

// Two inputs rendered through one IMGLIB operator. A missing input image
// (nothing of its data, or none of its channels, in the tile) is its
// background colour: the operator always runs, so a tile's pixels never
// depend on where the tile grid falls. So is the part of a tile outside an
// input's data, which lets an input's tile be read where it lies.
class BaseCompositeTask : public RenderTask {
public:
    BaseCompositeTask(const std::string& name, float time, std::string type, IMGLIB::BinaryOp op,
                      TaskPtr input0, TaskPtr input1)
        : RenderTask(name, time), m_type(std::move(type)), m_op(op) {
        registerInputTask(std::move(input0));
        registerInputTask(std::move(input1));
        setReadsInputDataOnly(true);
    }

protected:
    std::string getTypeString() override { return m_type; }
    void computeCacheID(CacheIDStream& stream) override {
        stream << m_op.flag;
        if (m_op.kind == IMGLIB::BINARYOP_MIX) stream << ' ' << m_op.mix;
        if (m_op.kind == IMGLIB::BINARYOP_DIFFERENCE_KEY)
            stream << ' ' << m_op.low << ' ' << m_op.high;
    }
    uint64_t computeOutputChannels() override {
        return IMGLIB::ValidateChannelMask(getDefinedInputChannels(0) | getDefinedInputChannels(1));
    }
    UTIL::Region computeOutputDataRegion() override {
        UTIL::Region region = getDefinedInputDataRegion(0);
        region.add(getDefinedInputDataRegion(1));
        return region;
    }
    Imath::Color4<float> computeBackgroundColor() override {
        return IMGLIB::ApplyBinaryOpToColor(m_op, getInputBackgroundColor(0),
                                            getInputBackgroundColor(1));
    }
    // Colour and alpha are asked for together: most operators weigh one
    // input's colour by the other's alpha (over, in, atop) or make alpha from
    // colour (difference key), so a channel's value must not depend on
    // whether the others were asked for.
    void makeInputFormatRequests() override {
        uint64_t wanted = getRequiredOutputChannels();
        if (wanted & IMGLIB::CHANNELS_RGBA) wanted |= IMGLIB::CHANNELS_RGBA;
        for (size_t i = 0; i < 2; ++i) addInputRequest(i, wanted & getDefinedInputChannels(i));
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(2, outputRect);
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        const IMGLIB::Image* in0 = inputs.size() > 0 ? inputs[0] : nullptr;
        const IMGLIB::Image* in1 = inputs.size() > 1 ? inputs[1] : nullptr;
        checkImglib(IMGLIB::ApplyBinaryOp(out, in0, in1, m_op, getInputBackgroundColor(0),
                                          getInputBackgroundColor(1)),
                    getNameAtTime());
    }

private:
    std::string m_type;
    IMGLIB::BinaryOp m_op;
};

}  // namespace Private

namespace {

using Private::BaseCompositeTask;

enum class Flag { None, Extrema, Alpha, False };

// One row per CompositeOp value.
struct Operator {
    const char* type;
    IMGLIB::BinaryOpKind kind;
    Flag flag;
    bool aFirst;  // input 0 is a (else b)
};

constexpr Operator kOperators[20] = {
    {"Add", IMGLIB::BINARYOP_ADD, Flag::None, false},
    {"Atop", IMGLIB::BINARYOP_ATOP, Flag::Alpha, false},
    {"Average", IMGLIB::BINARYOP_AVERAGE, Flag::None, false},
    {"Difference", IMGLIB::BINARYOP_DIFFERENCE, Flag::None, false},
    {"Divide", IMGLIB::BINARYOP_DIVIDE, Flag::None, true},
    {"Exclusion", IMGLIB::BINARYOP_EXCLUSION, Flag::None, false},
    {"Subtract", IMGLIB::BINARYOP_SUBTRACT, Flag::None, false},
    {"Geometric", IMGLIB::BINARYOP_GEOMETRIC, Flag::None, false},
    {nullptr, IMGLIB::BINARYOP_ADD, Flag::None, false},
    {"Hypotenuse", IMGLIB::BINARYOP_HYPOTENUSE, Flag::None, false},
    {"Max", IMGLIB::BINARYOP_MAX, Flag::Extrema, false},
    {"Over", IMGLIB::BINARYOP_OVER, Flag::False, false},
    {"Min", IMGLIB::BINARYOP_MIN, Flag::Extrema, false},
    {"Multiply", IMGLIB::BINARYOP_MULTIPLY, Flag::None, false},
    {"In", IMGLIB::BINARYOP_IN, Flag::Alpha, true},
    {"Out", IMGLIB::BINARYOP_OUT, Flag::Alpha, true},
    {"Over", IMGLIB::BINARYOP_OVER, Flag::Alpha, false},
    {"Under", IMGLIB::BINARYOP_UNDER, Flag::Alpha, false},
    {"Screen", IMGLIB::BINARYOP_SCREEN, Flag::Alpha, false},
    {"Subtract", IMGLIB::BINARYOP_SUBTRACT, Flag::None, true},
};

}  // namespace

namespace Private {
const Choices<CompositeOp> kCompositeOperators = {{"add", COMPOSITE_ADD},
                                                  {"atop", COMPOSITE_ATOP},
                                                  {"average", COMPOSITE_AVERAGE},
                                                  {"difference", COMPOSITE_DIFFERENCE},
                                                  {"divide", COMPOSITE_DIVIDE},
                                                  {"exclusion", COMPOSITE_EXCLUSION},
                                                  {"from", COMPOSITE_FROM},
                                                  {"geometric", COMPOSITE_GEOMETRIC},
                                                  {"hypotenuse", COMPOSITE_HYPOTENUSE},
                                                  {"max", COMPOSITE_MAX},
                                                  {"min", COMPOSITE_MIN},
                                                  {"multiply", COMPOSITE_MULTIPLY},
                                                  {"in", COMPOSITE_IN},
                                                  {"out", COMPOSITE_OUT},
                                                  {"over", COMPOSITE_OVER},
                                                  {"overplain", COMPOSITE_OVER_PLAIN},
                                                  {"under", COMPOSITE_UNDER},
                                                  {"screen", COMPOSITE_SCREEN},
                                                  {"minus", COMPOSITE_MINUS}};

const Choices<MatteOp> kMatteOps = {{"max", MatteOp::Max},
                                    {"min", MatteOp::Min},
                                    {"multiply", MatteOp::Multiply},
                                    {"plus", MatteOp::Plus},
                                    {"minus", MatteOp::Minus}};
}  // namespace Private

TaskPtr createCompositeTask(const std::string& name, float sampleRate, CompositeOp value,
                            bool extremaFlag, bool alphaFlag, bool cleanupClamp, float mix,
                            TaskPtr a, TaskPtr b) {
    if (value < 0 || value > 19 || !kOperators[value].type)
        throw RenderTaskRenderingException(
            "createCompositeTask", "Couldn't create a composite task of the requested type.", -1);
    const Operator& row = kOperators[value];
    IMGLIB::BinaryOp op;
    op.kind = row.kind;
    op.flag = row.flag == Flag::Extrema ? extremaFlag : row.flag == Flag::Alpha ? alphaFlag : false;
    op.foreground = row.aFirst ? 0 : 1;
    TaskPtr task(new BaseCompositeTask(name, sampleRate, row.type, op, row.aFirst ? a : b,
                                       row.aFirst ? b : a));
    if (cleanupClamp) task = createCleanupClampTask(name + ".clamp", sampleRate, false, task);
    if (!(mix >= 1.0f)) {
        if (!(mix >= 0.0f)) mix = 0.0f;  // negative, or NaN
        return createMixTask(name + ".Mix", sampleRate, mix, b, task);
    }
    return task;
}

TaskPtr createMatteCombineTask(const std::string& name, float sampleRate, MatteOp matte, bool clamp,
                               TaskPtr a, TaskPtr b) {
    Private::checkParameters("mattecombine", name,
                             {{"operation", Private::choiceValue(Private::kMatteOps, matte)}});
    static const std::array<std::pair<const char*, IMGLIB::BinaryOpKind>, 5> kinds = {{
        {"MatteMax", IMGLIB::BINARYOP_MATTE_MAX},
        {"MatteMin", IMGLIB::BINARYOP_MATTE_MIN},
        {"MatteMultiply", IMGLIB::BINARYOP_MATTE_MULTIPLY},
        {"MattePlus", IMGLIB::BINARYOP_MATTE_PLUS},
        {"MatteMinus", IMGLIB::BINARYOP_MATTE_MINUS},
    }};
    const auto& [type, kind] = kinds.at(static_cast<size_t>(matte));
    IMGLIB::BinaryOp op;
    op.kind = kind;
    op.flag = clamp;
    op.foreground = 0;  // b's colour, so b's other channels
    return TaskPtr(new BaseCompositeTask(name, sampleRate, type, op, std::move(b), std::move(a)));
}

TaskPtr createDifferenceKeyTask(const std::string& name, float sampleRate, float low, float high,
                                TaskPtr a, TaskPtr b) {
    Private::checkParameters("differencekey", name, {{"low", low}, {"high", high}});
    if (high < low)
        throw InvalidParameterException(name, "high",
                                        "value " + Private::formatNumber(high) + " is below low (" +
                                            Private::formatNumber(low) + ")");
    IMGLIB::BinaryOp op;
    op.kind = IMGLIB::BINARYOP_DIFFERENCE_KEY;
    op.low = low;
    op.high = high;
    return TaskPtr(
        new BaseCompositeTask(name, sampleRate, "DifferenceKey", op, std::move(b), std::move(a)));
}

TaskPtr createMixTask(const std::string& name, float sampleRate, float amount, TaskPtr first,
                      TaskPtr second) {
    Private::checkParameters("mix", name, {{"amount", amount}});
    IMGLIB::BinaryOp op;
    op.kind = IMGLIB::BINARYOP_MIX;
    op.mix = amount;
    return TaskPtr(
        new BaseCompositeTask(name, sampleRate, "Mix", op, std::move(first), std::move(second)));
}

namespace Private {

void declareCompositeOperations(OperationList& ops) {
    ops.push_back({"composite",
                   "a over b, and the other operators",
                   {choiceParam("operator", kCompositeOperators, "over",
                                "how a and b combine (over: a + b (1 − a's alpha); overplain: over "
                                "with the alphas as "
                                "they are, whatever alphaFlag)"),
                    Param{"alphaFlag", ParamType::Bool, false,
                          "Porter-Duff operators and screen take alphas clamped to [0, 1]"},
                    Param{"extremaFlag", ParamType::Bool, false,
                          "max and min choose whole pixels by luminance (else channel by channel)"},
                    Param{"cleanupClamp", ParamType::Bool, false,
                          "clamp the result: alpha to [0, 1], colour to 0 and above"},
                    Param{"mix", ParamType::Number, 1,
                          "how much of the result replaces b (0: b as it is, 1: the result)"}
                        .range(0, 1)},
                   {"a", "b"},
                   [](const OperationArgs& a) {
                       return createCompositeTask(
                           a.node(), a.time(), a.choice(kCompositeOperators, "operator"),
                           a.flag("extremaFlag"), a.flag("alphaFlag"), a.flag("cleanupClamp"),
                           a.number("mix"), a.input("a"), a.input("b"));
                   }});
    ops.push_back({"mix",
                   "first (1 - amount) + second amount",
                   {Param{"amount", ParamType::Number, 0.5,
                          "how much of second (0: first, 1: second; beyond extrapolates)"}
                        .anyValue()},
                   {"first", "second"},
                   [](const OperationArgs& a) {
                       return createMixTask(a.node(), a.time(), a.number("amount"),
                                            a.input("first"), a.input("second"));
                   }});
}

void declareMatteOperations(OperationList& ops) {
    ops.push_back({"mattecombine",
                   "b with its alpha and a's combined",
                   {choiceParam("operation", kMatteOps, "max", "how the two alphas combine"),
                    {"clamp", ParamType::Bool, true, "clamp the result to [0, 1]"}},
                   {"a", "b"},
                   [](const OperationArgs& a) {
                       return createMatteCombineTask(a.node(), a.time(),
                                                     a.choice(kMatteOps, "operation"),
                                                     a.flag("clamp"), a.input("a"), a.input("b"));
                   },
                   "RGB and other channels from b; A = max(A<sub>a</sub>, A<sub>b</sub>), min, "
                   "A<sub>a</sub> A<sub>b</sub>, A<sub>a</sub> + A<sub>b</sub> or A<sub>a</sub> − "
                   "A<sub>b</sub>."});
    ops.push_back(
        {"differencekey",
         "alpha where a differs from a clean plate b",
         {Param{"low", ParamType::Number, 0.02, "a difference up to which alpha is 0"}.atLeast(0),
          Param{"high", ParamType::Number, 0.2, "a difference from which alpha is 1"}.atLeast(0)},
         {"a", "b"},
         [](const OperationArgs& a) {
             return createDifferenceKeyTask(a.node(), a.time(), a.number("low"), a.number("high"),
                                            a.input("a"), a.input("b"));
         },
         "D = max over R, G, B of |a − b|; A = clamp((D − low) / (high − low), 0, 1) (a step at "
         "`low` when high = low); RGB from a."});
    ops.back().rules = {"high is at least low"};
}

}  // namespace Private

}  // namespace TESSERA
