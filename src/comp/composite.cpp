// The compositing tasks: one base for every two-input operator, policies for
// the operators whose answer is exact when an input has nothing, and the
// factory's table.
#include <array>

#include "colortasks.h"
#include "compositetasks.h"
#include "exceptions.h"
#include "imglib/channels.h"
#include "imglib/compositeops.h"
#include "imglib/pixels.h"
#include "private/imglibcall.h"

namespace TESSERA {
namespace Private {

// Two inputs rendered through one IMGLIB operator. A missing input image
// (nothing of its data in the tile) goes to the policy hooks; by default
// they run the operator all the same, with the input's background colour.
class BaseCompositeTask : public RenderTask {
public:
    BaseCompositeTask(const std::string& name, float time, std::string type, IMGLIB::BinaryOp op,
                      TaskPtr input0, TaskPtr input1)
        : RenderTask(name, time), m_type(std::move(type)), m_op(op) {
        registerInputTask(std::move(input0));
        registerInputTask(std::move(input1));
    }

    virtual const char* firstPolicyWord() const { return "General"; }
    virtual const char* secondPolicyWord() const { return "General"; }

protected:
    std::string getTypeString() override { return m_type; }
    void computeCacheID(CacheIDStream& stream) override {
        stream << m_op.flag;
        if (m_op.kind == IMGLIB::BINARYOP_MIX) stream << ' ' << m_op.mix;
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
    void makeInputFormatRequests() override {
        for (size_t i = 0; i < 2; ++i)
            addInputRequest(i, getRequiredOutputChannels() & getDefinedInputChannels(i));
    }
    void computeRequiredInputRectangles(const UTIL::Rect& outputRect,
                                        std::vector<UTIL::Rect>& inputRects) override {
        inputRects.assign(2, outputRect);
    }
    void renderRect(const IMGLIB::Image* out,
                    const std::vector<const IMGLIB::Image*>& inputs) override {
        const IMGLIB::Image* in0 = inputs.size() > 0 ? inputs[0] : nullptr;
        const IMGLIB::Image* in1 = inputs.size() > 1 ? inputs[1] : nullptr;
        int status;
        if (in0 && in1)
            status = operate(out, in0, in1);
        else if (in0)
            status = firstPolicy(out, in0);
        else if (in1)
            status = secondPolicy(out, in1);
        else
            throw RenderTaskRenderingException(getNameAtTime(),
                                               "At least one of the inputs should be valid", -1);
        checkImglib(status, getNameAtTime());
    }

    int operate(const IMGLIB::Image* out, const IMGLIB::Image* in0, const IMGLIB::Image* in1) {
        return IMGLIB::ApplyBinaryOp(out, in0, in1, m_op, getInputBackgroundColor(0),
                                     getInputBackgroundColor(1));
    }
    // Only input 0 has an image / only input 1 has one.
    virtual int firstPolicy(const IMGLIB::Image* out, const IMGLIB::Image* in0) {
        return operate(out, in0, nullptr);
    }
    virtual int secondPolicy(const IMGLIB::Image* out, const IMGLIB::Image* in1) {
        return operate(out, nullptr, in1);
    }

private:
    std::string m_type;
    IMGLIB::BinaryOp m_op;
};

struct ClearOnMissing {
    static constexpr const char* word = "Clear";
    static int apply(const IMGLIB::Image* out, const IMGLIB::Image*) { return IMGLIB::Clear(out); }
};

struct CopyOnMissing {
    static constexpr const char* word = "Copy";
    static int apply(const IMGLIB::Image* out, const IMGLIB::Image* other) {
        return IMGLIB::Copy(out, other);
    }
};

// An operator whose result is exact without its operator when one input is
// missing: a copy of the other input, or nothing. That holds when the missing
// input stands for transparent black; over any other background colour the
// operator runs as usual.
template <class FirstPolicy, class SecondPolicy>
class OptimizedCompositeTask : public BaseCompositeTask {
public:
    using BaseCompositeTask::BaseCompositeTask;
    const char* firstPolicyWord() const override { return FirstPolicy::word; }
    const char* secondPolicyWord() const override { return SecondPolicy::word; }

protected:
    int firstPolicy(const IMGLIB::Image* out, const IMGLIB::Image* in0) override {
        if (!transparent(getInputBackgroundColor(1))) return operate(out, in0, nullptr);
        return FirstPolicy::apply(out, in0);
    }
    int secondPolicy(const IMGLIB::Image* out, const IMGLIB::Image* in1) override {
        if (!transparent(getInputBackgroundColor(0))) return operate(out, nullptr, in1);
        return SecondPolicy::apply(out, in1);
    }

private:
    static bool transparent(const Imath::Color4<float>& c) {
        return c.r == 0.0f && c.g == 0.0f && c.b == 0.0f && c.a == 0.0f;
    }
};

}  // namespace Private

namespace {

using Private::BaseCompositeTask;

enum class Policy { None, Clear, Copy };
enum class Flag { None, Extrema, Alpha, False };

// One row per CompositeOp value.
struct Operator {
    const char* type;
    IMGLIB::BinaryOpKind kind;
    Flag flag;
    bool aFirst;  // input 0 is a (else b)
    Policy first, second;
};

constexpr Operator kOperators[20] = {
    {"Add", IMGLIB::BINARYOP_ADD, Flag::None, false, Policy::Copy, Policy::Copy},
    {"Atop", IMGLIB::BINARYOP_ATOP, Flag::Alpha, false, Policy::Clear, Policy::Copy},
    {"Average", IMGLIB::BINARYOP_AVERAGE, Flag::None, false, Policy::None, Policy::None},
    {"Difference", IMGLIB::BINARYOP_DIFFERENCE, Flag::None, false, Policy::None, Policy::None},
    {"Divide", IMGLIB::BINARYOP_DIVIDE, Flag::None, true, Policy::Copy, Policy::Clear},
    {"Exclusion", IMGLIB::BINARYOP_EXCLUSION, Flag::None, false, Policy::Copy, Policy::Copy},
    {"Subtract", IMGLIB::BINARYOP_SUBTRACT, Flag::None, false, Policy::None, Policy::None},
    {"Geometric", IMGLIB::BINARYOP_GEOMETRIC, Flag::None, false, Policy::None, Policy::None},
    {nullptr, IMGLIB::BINARYOP_ADD, Flag::None, false, Policy::None, Policy::None},
    {"Hypotenuse", IMGLIB::BINARYOP_HYPOTENUSE, Flag::None, false, Policy::None, Policy::None},
    {"Max", IMGLIB::BINARYOP_MAX, Flag::Extrema, false, Policy::None, Policy::None},
    {"Over", IMGLIB::BINARYOP_OVER, Flag::False, false, Policy::Copy, Policy::Copy},
    {"Min", IMGLIB::BINARYOP_MIN, Flag::Extrema, false, Policy::None, Policy::None},
    {"Multiply", IMGLIB::BINARYOP_MULTIPLY, Flag::None, false, Policy::Clear, Policy::Clear},
    {"In", IMGLIB::BINARYOP_IN, Flag::Alpha, true, Policy::Clear, Policy::Clear},
    {"Out", IMGLIB::BINARYOP_OUT, Flag::Alpha, true, Policy::Copy, Policy::Clear},
    {"Over", IMGLIB::BINARYOP_OVER, Flag::Alpha, false, Policy::Copy, Policy::Copy},
    {"Under", IMGLIB::BINARYOP_UNDER, Flag::Alpha, false, Policy::Copy, Policy::Copy},
    {"Screen", IMGLIB::BINARYOP_SCREEN, Flag::Alpha, false, Policy::None, Policy::None},
    {"Subtract", IMGLIB::BINARYOP_SUBTRACT, Flag::None, true, Policy::None, Policy::None},
};

template <class First, class Second>
TaskPtr optimized(const std::string& name, float time, const Operator& row,
                  const IMGLIB::BinaryOp& op, TaskPtr in0, TaskPtr in1) {
    return TaskPtr(
        new Private::OptimizedCompositeTask<First, Second>(name, time, row.type, op, in0, in1));
}

TaskPtr build(const std::string& name, float time, const Operator& row, const IMGLIB::BinaryOp& op,
              TaskPtr in0, TaskPtr in1) {
    using Private::ClearOnMissing;
    using Private::CopyOnMissing;
    if (row.first == Policy::Copy && row.second == Policy::Copy)
        return optimized<CopyOnMissing, CopyOnMissing>(name, time, row, op, in0, in1);
    if (row.first == Policy::Clear && row.second == Policy::Copy)
        return optimized<ClearOnMissing, CopyOnMissing>(name, time, row, op, in0, in1);
    if (row.first == Policy::Copy && row.second == Policy::Clear)
        return optimized<CopyOnMissing, ClearOnMissing>(name, time, row, op, in0, in1);
    if (row.first == Policy::Clear && row.second == Policy::Clear)
        return optimized<ClearOnMissing, ClearOnMissing>(name, time, row, op, in0, in1);
    return TaskPtr(new BaseCompositeTask(name, time, row.type, op, in0, in1));
}

}  // namespace

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
    TaskPtr task = row.aFirst ? build(name, sampleRate, row, op, a, b)
                              : build(name, sampleRate, row, op, b, a);
    if (cleanupClamp) task = createCleanupClampTask(name + ".clamp", sampleRate, false, task);
    if (!(mix >= 1.0f)) {
        if (!(mix >= 0.0f)) mix = 0.0f;  // negative, or NaN
        return createMixTask(name + ".Mix", sampleRate, mix, b, task);
    }
    return task;
}

TaskPtr createMixTask(const std::string& name, float sampleRate, float amount, TaskPtr first,
                      TaskPtr second) {
    IMGLIB::BinaryOp op;
    op.kind = IMGLIB::BINARYOP_MIX;
    op.mix = amount;
    return TaskPtr(
        new BaseCompositeTask(name, sampleRate, "Mix", op, std::move(first), std::move(second)));
}

}  // namespace TESSERA
