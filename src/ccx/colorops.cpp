// The colour-operation factories. Every operator is one IMGLIB table entry
// wrapped by one op class; what differs between them (type string, channel
// rules, what enters the cache ID) is data given by each factory.
#include <algorithm>
#include <functional>
#include <utility>

#include "colortasks.h"
#include "imglib/channels.h"
#include "inplacetask.h"
#include "private/operation.h"

namespace TESSERA {
namespace {

// How an operator's channels relate to its input's or its output's.
enum class ChannelRule { Same, PlusAlpha, PlusRGB, PlusRGBA, RGBIfAny };

uint64_t applyRule(ChannelRule rule, uint64_t mask) {
    switch (rule) {
        case ChannelRule::PlusAlpha:
            return mask | IMGLIB::CHANNEL_A;
        case ChannelRule::PlusRGB:
            return mask | IMGLIB::CHANNELS_RGB;
        case ChannelRule::PlusRGBA:
            return mask | IMGLIB::CHANNELS_RGBA;
        case ChannelRule::RGBIfAny:
            return mask & IMGLIB::CHANNELS_RGB ? mask | IMGLIB::CHANNELS_RGB : mask;
        default:
            return mask;
    }
}

class TableOp : public InPlaceOp {
public:
    using CacheWriter = std::function<void(CacheIDStream&)>;
    using ColorRule = std::function<Color4f(const Color4f&, const TableOp&)>;

    TableOp(std::string type, const IMGLIB::PointOp& op, CacheWriter cacheID,
            ChannelRule output = ChannelRule::Same, ChannelRule required = ChannelRule::Same)
        : m_type(std::move(type)),
          m_op(op),
          m_cacheID(std::move(cacheID)),
          m_output(output),
          m_required(required) {}

    // Keeps the curve points the table entry points at.
    void adoptCurves(std::vector<std::vector<float>> curves) {
        m_curves = std::move(curves);
        for (size_t k = 0; k < m_curves.size() && k < 4; ++k) {
            sortPairs(m_curves[k]);
            m_op.curve[k] = m_curves[k].data();
            m_op.curvePoints[k] = static_cast<int64_t>(m_curves[k].size() / 2);
        }
    }
    void setColorRule(ColorRule rule) { m_colorRule = std::move(rule); }

    void computeCacheID(CacheIDStream& stream) override { m_cacheID(stream); }
    int apply(const IMGLIB::Image* out, const IMGLIB::Image* in) override {
        return IMGLIB::ApplyPointOps(out, in, &m_op, 1);
    }
    std::size_t getOutputChannels(std::size_t channels) override {
        return applyRule(m_output, channels);
    }
    std::size_t getRequiredInputChannels(std::size_t channels) override {
        return applyRule(m_required, channels);
    }
    std::string getTypeString() override { return m_type; }
    Color4f applyToColor(const Color4f& color) override {
        return m_colorRule ? m_colorRule(color, *this) : engineColor(color);
    }
    Color4f engineColor(const Color4f& color) const {
        return IMGLIB::ApplyPointOpsToColor(color, &m_op, 1);
    }
    const IMGLIB::PointOp* getPointOp() const override { return &m_op; }
    const IMGLIB::PointOp& op() const { return m_op; }

private:
    static void sortPairs(std::vector<float>& pts) {
        std::vector<std::pair<float, float>> pairs;
        for (size_t i = 0; i + 1 < pts.size(); i += 2) pairs.emplace_back(pts[i], pts[i + 1]);
        std::stable_sort(pairs.begin(), pairs.end(),
                         [](const auto& a, const auto& b) { return a.first < b.first; });
        pts.clear();
        for (const auto& p : pairs) pts.insert(pts.end(), {p.first, p.second});
    }

    std::string m_type;
    IMGLIB::PointOp m_op;
    CacheWriter m_cacheID;
    ChannelRule m_output, m_required;
    std::vector<std::vector<float>> m_curves;
    ColorRule m_colorRule;
};

using TableOpPtr = RCX_ptr_v4::ref_ptr<TableOp>;

TaskPtr wrap(const InPlaceOpPtr& op, const std::string& name, float sampleRate, TaskPtr input) {
    return TaskPtr(new InPlaceTask(op, name, sampleRate, std::move(input)));
}

TaskPtr make(const std::string& name, float sampleRate, TaskPtr input, std::string type,
             const IMGLIB::PointOp& op, TableOp::CacheWriter cacheID,
             ChannelRule output = ChannelRule::Same, ChannelRule required = ChannelRule::Same) {
    return wrap(
        InPlaceOpPtr(new TableOp(std::move(type), op, std::move(cacheID), output, required)), name,
        sampleRate, std::move(input));
}

bool allOnes(const Color4f& c) {
    return c.r == 1.0f && c.g == 1.0f && c.b == 1.0f && c.a == 1.0f;
}

void toArray(const Color4f& c, float out[4]) {
    out[0] = c.r, out[1] = c.g, out[2] = c.b, out[3] = c.a;
}

// Every parameter written in order, each followed by a space.
template <class... Args>
TableOp::CacheWriter params(Args... args) {
    return [=](CacheIDStream& s) { ((s << args << ' '), ...); };
}

}  // namespace

TaskPtr createClampTask(const std::string& name, float sampleRate, const Color4f& low,
                        const Color4f& high, bool clampLow, bool clampHigh, TaskPtr input) {
    Private::checkParameters("clamp", name, {{"low", low}, {"high", high}});
    if (!clampLow && !clampHigh) return input;
    float lo[4], hi[4];
    toArray(low, lo);
    toArray(high, hi);
    // An inactive colour stays out of the cache ID: it changes no pixel.
    return make(name, sampleRate, input, "Clamp", IMGLIB::MakeClamp(lo, hi, clampLow, clampHigh),
                [=](CacheIDStream& s) {
                    s << clampLow << "," << clampHigh << ",";
                    if (clampLow) s << low;
                    if (clampHigh) s << high;
                });
}

TaskPtr createThresholdTask(const std::string& name, float sampleRate, const Color4f& threshold,
                            bool replaceBelow, const Color4f& belowColor, bool replaceAbove,
                            const Color4f& aboveColor, TaskPtr input) {
    Private::checkParameters(
        "threshold", name,
        {{"threshold", threshold}, {"belowColor", belowColor}, {"aboveColor", aboveColor}});
    float t[4], below[4], above[4];
    toArray(threshold, t);
    toArray(belowColor, below);
    toArray(aboveColor, above);
    return make(name, sampleRate, input, "Threshold",
                IMGLIB::MakeThreshold(t, replaceBelow, below, replaceAbove, above),
                [=](CacheIDStream& s) {
                    s << threshold << replaceBelow << "," << replaceAbove << ",";
                    if (replaceBelow) s << belowColor;
                    if (replaceAbove) s << aboveColor;
                });
}

TaskPtr createCleanupClampTask(const std::string& name, float sampleRate, bool clampColorAtOne,
                               TaskPtr input) {
    return make(name, sampleRate, input, "CleanUpClamp", IMGLIB::MakeCleanupClamp(clampColorAtOne),
                params(clampColorAtOne));
}

TaskPtr createContrastTask(const std::string& name, float sampleRate, const Color4f& contrast,
                           const Color4f& pivot, TaskPtr input) {
    Private::checkParameters("contrast", name, {{"contrast", contrast}, {"pivot", pivot}});
    if (allOnes(contrast)) return input;
    float k[4], p[4];
    toArray(contrast, k);
    toArray(pivot, p);
    return make(name, sampleRate, input, "Contrast", IMGLIB::MakeContrast(k, p),
                params(contrast, pivot));
}

namespace {

TaskPtr exponential(const std::string& name, float sampleRate, const Color4f& exponent,
                    const Color4f& pivot, TaskPtr input) {
    if (allOnes(exponent)) return input;
    float e[4], p[4];
    toArray(exponent, e);
    toArray(pivot, p);
    return make(name, sampleRate, input, "Gamma", IMGLIB::MakeExponential(e, p),
                params(exponent, pivot));
}

}  // namespace

TaskPtr createExponentialTask(const std::string& name, float sampleRate, const Color4f& exponent,
                              const Color4f& pivot, TaskPtr input) {
    Private::checkParameters("exponential", name, {{"exponent", exponent}, {"pivot", pivot}});
    return exponential(name, sampleRate, exponent, pivot, std::move(input));
}

TaskPtr createGammaTask(const std::string& name, float sampleRate, const Color4f& gamma,
                        const Color4f& pivot, TaskPtr input) {
    Private::checkParameters("gamma", name, {{"gamma", gamma}, {"pivot", pivot}});
    if (allOnes(gamma)) return input;
    // No guard against 0: the exponent is then infinite, as the division gives.
    const Color4f exponent(1.0f / gamma.r, 1.0f / gamma.g, 1.0f / gamma.b, 1.0f / gamma.a);
    return exponential(name, sampleRate, exponent, pivot, std::move(input));
}

TaskPtr createCompressRangeTask(const std::string& name, float sampleRate, float midGrey,
                                float maximum, float scale, bool expand, TaskPtr input) {
    Private::checkParameters("compressrange", name,
                             {{"midGrey", midGrey}, {"maximum", maximum}, {"scale", scale}});
    return make(name, sampleRate, input, expand ? "ExpandRange" : "CompressRange",
                IMGLIB::MakeCompressRange(midGrey, maximum, scale, expand),
                params(midGrey, maximum, scale), ChannelRule::Same, ChannelRule::RGBIfAny);
}

TaskPtr createStandardCompressRangeTask(const std::string& name, float sampleRate, TaskPtr input) {
    float mid, max, scale;
    IMGLIB::GetStandardRangeParameters(&mid, &max, &scale);
    return createCompressRangeTask(name, sampleRate, mid, max, scale, false, std::move(input));
}

TaskPtr createStandardExpandRangeTask(const std::string& name, float sampleRate, TaskPtr input) {
    float mid, max, scale;
    IMGLIB::GetStandardRangeParameters(&mid, &max, &scale);
    return createCompressRangeTask(name, sampleRate, mid, max, scale, true, std::move(input));
}

TaskPtr createNContrastBoostTask(const std::string& name, float sampleRate, float amount,
                                 bool alphaToo, TaskPtr input) {
    Private::checkParameters("ncontrastboost", name, {{"amount", amount}});
    TableOpPtr op(new TableOp("NContrastBoost", IMGLIB::MakeNContrastBoost(amount, alphaToo),
                              params(amount, alphaToo)));
    // The background colour reports alpha 1 when alpha is not boosted.
    op->setColorRule([alphaToo](const Color4f& c, const TableOp& self) {
        Color4f out = self.engineColor(c);
        if (!alphaToo) out.a = 1.0f;
        return out;
    });
    return wrap(op, name, sampleRate, std::move(input));
}

TaskPtr createFringeTask(const std::string& name, float sampleRate, TaskPtr input) {
    IMGLIB::PointOp op;
    op.kind = IMGLIB::POINTOP_FRINGE;
    return make(name, sampleRate, input, "Fringe", op, params(), ChannelRule::Same,
                ChannelRule::PlusAlpha);
}

TaskPtr createHSVComponentToAlphaTask(const std::string& name, float sampleRate,
                                      HSVComponent component, TaskPtr input) {
    Private::checkParameters("hsvcomponenttoalpha", name, {{"component", int(component)}});
    return make(name, sampleRate, input, "HSVComponentToAlpha", IMGLIB::MakeHSVToAlpha(component),
                params(static_cast<int>(component)), ChannelRule::PlusAlpha, ChannelRule::PlusRGB);
}

TaskPtr createHSVConvertTask(const std::string& name, float sampleRate, bool toHSV, TaskPtr input) {
    return make(name, sampleRate, input, "HSVConvert", IMGLIB::MakeHSVConvert(toHSV), params(toHSV),
                ChannelRule::PlusRGB, ChannelRule::PlusRGB);
}

TaskPtr createLabTask(const std::string& name, float sampleRate, bool toLab, TaskPtr input) {
    return make(name, sampleRate, input, "LabConvert", IMGLIB::MakeLabConvert(toLab), params(toLab),
                ChannelRule::Same, ChannelRule::RGBIfAny);
}

TaskPtr createLumaCurvesTask(const std::string& name, float sampleRate,
                             const Imath::Color3<float>& weights, const std::vector<float>& points,
                             TaskPtr input) {
    Private::checkParameters("lumacurves", name, {{"weights", weights}, {"points", points}});
    TableOpPtr op(new TableOp(
        "LumaCurves", IMGLIB::MakeLumaCurve(weights, nullptr, 0),
        [weights, points](CacheIDStream& s) {
            s << weights << ' ' << points.size() << ':';
            for (float v : points) s << v << ' ';
        },
        ChannelRule::Same, ChannelRule::RGBIfAny));
    op->adoptCurves({points});
    return wrap(op, name, sampleRate, std::move(input));
}

TaskPtr createRGBACurvesTask(const std::string& name, float sampleRate,
                             const std::vector<float>& red, const std::vector<float>& green,
                             const std::vector<float>& blue, const std::vector<float>& alpha,
                             TaskPtr input) {
    Private::checkParameters("rgbacurves", name,
                             {{"red", red}, {"green", green}, {"blue", blue}, {"alpha", alpha}});
    if (red.empty() && green.empty() && blue.empty() && alpha.empty()) return input;
    const std::vector<std::vector<float>> curves{red, green, blue, alpha};
    const float* none[4] = {};
    const int64_t zero[4] = {};
    TableOpPtr op(
        new TableOp("RGBACurves", IMGLIB::MakeRGBACurves(none, zero), [curves](CacheIDStream& s) {
            for (const auto& curve : curves) {
                s << curve.size() << ':';
                for (float v : curve) s << v << ' ';
            }
        }));
    op->adoptCurves(curves);
    return wrap(op, name, sampleRate, std::move(input));
}

TaskPtr createMaxRGBToAlphaTask(const std::string& name, float sampleRate, TaskPtr input) {
    IMGLIB::PointOp op;
    op.kind = IMGLIB::POINTOP_MAX_RGB_TO_ALPHA;
    return make(name, sampleRate, input, "MaxRGBToAlpha", op, params(), ChannelRule::PlusAlpha,
                ChannelRule::PlusRGB);
}

TaskPtr createMinRGBToAlphaTask(const std::string& name, float sampleRate, TaskPtr input) {
    IMGLIB::PointOp op;
    op.kind = IMGLIB::POINTOP_MIN_RGB_TO_ALPHA;
    return make(name, sampleRate, input, "MinRGBToAlpha", op, params(), ChannelRule::PlusAlpha,
                ChannelRule::PlusRGB);
}

TaskPtr createScreenRGBToAlphaTask(const std::string& name, float sampleRate, uint64_t channel,
                                   TaskPtr input) {
    Private::checkParameters("screenrgbtoalpha", name, {{"channel", channel}});
    return make(name, sampleRate, input, "ScreenRGBToAlpha", IMGLIB::MakeScreenRGBToAlpha(channel),
                params(channel), ChannelRule::PlusAlpha, ChannelRule::PlusRGB);
}

TaskPtr createMultInverseTask(const std::string& name, float sampleRate, TaskPtr input) {
    IMGLIB::PointOp op;
    op.kind = IMGLIB::POINTOP_MULT_INVERSE;
    return make(name, sampleRate, input, "MultInverseOp", op, params(), ChannelRule::Same,
                ChannelRule::PlusAlpha);
}

TaskPtr createPremultiplyTask(const std::string& name, float sampleRate, TaskPtr input) {
    return make(name, sampleRate, input, "Premultiply", IMGLIB::MakePremultiply(), params(),
                ChannelRule::Same, ChannelRule::PlusAlpha);
}

TaskPtr createLuminanceTask(const std::string& name, float sampleRate,
                            const Imath::Color3<float>& weights, TaskPtr input) {
    Private::checkParameters("luminance", name, {{"weights", weights}});
    return make(name, sampleRate, input, "Luminance", IMGLIB::MakeLuminance(weights),
                params(weights), ChannelRule::RGBIfAny, ChannelRule::RGBIfAny);
}

TaskPtr createLumaKeyTask(const std::string& name, float sampleRate,
                          const Imath::Color3<float>& weights, float low, float high, bool invert,
                          TaskPtr input) {
    Private::checkParameters("lumakey", name, {{"weights", weights}, {"low", low}, {"high", high}});
    return make(name, sampleRate, input, "LumaKey", IMGLIB::MakeLumaKey(weights, low, high, invert),
                params(weights, low, high, invert), ChannelRule::PlusAlpha, ChannelRule::PlusRGB);
}

TaskPtr createChromaKeyTask(const std::string& name, float sampleRate,
                            const Imath::Color3<float>& key, float tolerance, float softness,
                            float spill, TaskPtr input) {
    Private::checkParameters(
        "chromakey", name,
        {{"key", key}, {"tolerance", tolerance}, {"softness", softness}, {"spill", spill}});
    return make(name, sampleRate, input, "ChromaKey",
                IMGLIB::MakeChromaKey(key, tolerance, softness, spill),
                params(key, tolerance, softness, spill), ChannelRule::PlusAlpha,
                ChannelRule::PlusRGBA);
}

TaskPtr createPosterizeTask(const std::string& name, float sampleRate, float levels, float low,
                            float high, bool alphaToo, bool clampToRange, TaskPtr input) {
    Private::checkParameters("posterize", name, {{"levels", levels}, {"low", low}, {"high", high}});
    return make(name, sampleRate, input, "Posterize",
                IMGLIB::MakePosterize(levels, low, high, alphaToo, clampToRange),
                params(levels, low, high, alphaToo, clampToRange));
}

TaskPtr createAnalyticalLogConvertTask(const std::string& name, float sampleRate,
                                       const Color4f& blackCode, const Color4f& whiteCode,
                                       const Color4f& density, bool toLog, bool alphaToo,
                                       TaskPtr input) {
    Private::checkParameters(
        "logconvert", name,
        {{"blackCode", blackCode}, {"whiteCode", whiteCode}, {"density", density}});
    float b[4], w[4], d[4];
    toArray(blackCode, b);
    toArray(whiteCode, w);
    toArray(density, d);
    return make(name, sampleRate, input, "LogConvert",
                IMGLIB::MakeLogConvert(b, w, d, toLog, alphaToo),
                params(blackCode, whiteCode, density, toLog, alphaToo));
}

TaskPtr createBloomTask(const std::string& name, float sampleRate,
                        const BloomControlSettings& settings, TaskPtr input) {
    Private::checkParameters("bloom", name,
                             {{"threshold", settings.threshold}, {"gain", settings.gain}});
    return make(name, sampleRate, input, "Bloom",
                IMGLIB::MakeBloomControl(settings.threshold, settings.gain, settings.isolate,
                                         settings.luminance),
                params(settings.threshold, settings.gain, settings.isolate, settings.luminance),
                ChannelRule::Same, settings.luminance ? ChannelRule::RGBIfAny : ChannelRule::Same);
}

TaskPtr createInPlaceCopyTask(const std::string& name, float sampleRate, TaskPtr input) {
    return make(name, sampleRate, input, "Copy", IMGLIB::PointOp{}, params());
}

namespace {

// `matrix` in IMGLIB's layout: 4 rows of 4, then the offset.
TaskPtr colorMatrix(const std::string& name, float sampleRate, const float* matrix, TaskPtr input) {
    std::vector<float> values(matrix, matrix + 20);
    return make(name, sampleRate, input, "ColorTransform", IMGLIB::MakeColorMatrix(matrix),
                [values](CacheIDStream& s) {
                    for (float v : values) s << v << ' ';
                });
}

TaskPtr colorMatrix(const std::string& name, float sampleRate, const Imath::Matrix44<float>& matrix,
                    const Color4f& offset, TaskPtr input) {
    float layout[20];
    IMGLIB::ConvertMtx_imathToImglib(layout, matrix, offset);
    return colorMatrix(name, sampleRate, layout, std::move(input));
}

}  // namespace

TaskPtr createColorTransformTask(const std::string& name, float sampleRate, const float* matrix,
                                 TaskPtr input) {
    // The offset's numbers take what the matrix's take.
    Private::checkParameters("colortransform", name,
                             {{"matrix", std::vector<float>(matrix, matrix + 20)}});
    return colorMatrix(name, sampleRate, matrix, std::move(input));
}

TaskPtr createColorTransformTask(const std::string& name, float sampleRate,
                                 const Imath::Matrix44<float>& matrix, const Color4f& offset,
                                 TaskPtr input) {
    Private::checkParameters(
        "colortransform", name,
        {{"matrix", std::vector<float>(matrix.getValue(), matrix.getValue() + 16)},
         {"offset", offset}});
    return colorMatrix(name, sampleRate, matrix, offset, std::move(input));
}

TaskPtr createGainTask(const std::string& name, float sampleRate, const Color4f& gain,
                       TaskPtr input) {
    Private::checkParameters("gain", name, {{"gain", gain}});
    Imath::Matrix44<float> m(gain.r, 0, 0, 0, 0, gain.g, 0, 0, 0, 0, gain.b, 0, 0, 0, 0, gain.a);
    return colorMatrix(name, sampleRate, m, Color4f(0, 0, 0, 0), std::move(input));
}

TaskPtr createHueShiftTask(const std::string& name, float sampleRate, const HueShiftParams& params,
                           TaskPtr input) {
    Private::checkParameters("hueshift", name,
                             {{"hueShift", params.hueShift},
                              {"saturation", params.saturation},
                              {"weights", params.weights}});
    Imath::Matrix44<float> hue, saturation;
    IMGLIB::BuildMatrix_HueShift(&hue, params.hueShift);
    IMGLIB::BuildMatrix_Saturation(&saturation, params.saturation, params.weights);
    // Row vectors: the hue turns first, then the saturation applies.
    return colorMatrix(name, sampleRate, hue * saturation, Color4f(0, 0, 0, 0), std::move(input));
}

namespace Private {

const json kRec709Luma = {0.2126, 0.7152, 0.0722};

void declareColorOperations(OperationList& ops) {
    ops.push_back(
        {"gain",
         "multiply",
         {Param{"gain", ParamType::Color4, kWhite, "the factor of each channel"}.anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             return createGainTask(a.node(), a.time(), a.color("gain"), a.input("input"));
         }});
    ops.push_back(
        {"colortransform",
         "a 4x4 matrix (row vectors) and an offset",
         {Param{"matrix", ParamType::Floats,
                json::array({1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1}),
                "16 numbers, 4 rows of 4: out = (R, G, B, A) × matrix + offset"}
              .anyValue(),
          Param{"offset", ParamType::Color4, kClear, "added to each channel after the matrix"}
              .anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             const std::vector<float> m = a.floats("matrix");
             if (m.size() != 16) a.fail("matrix", "needs 16 numbers");
             return createColorTransformTask(
                 a.node(), a.time(),
                 Imath::Matrix44<float>(m[0], m[1], m[2], m[3], m[4], m[5], m[6], m[7], m[8], m[9],
                                        m[10], m[11], m[12], m[13], m[14], m[15]),
                 a.color("offset"), a.input("input"));
         }});
    ops.back().rules = {"matrix has 16 numbers"};
    ops.push_back(
        {"clamp",
         "clamp to [low, high]",
         {Param{"low", ParamType::Color4, kClear, "the lowest value of each channel"}.anyValue(),
          Param{"high", ParamType::Color4, kWhite, "the highest value of each channel"}.anyValue(),
          Param{"clampLow", ParamType::Bool, true, "clamp to low (else values below it stay)"},
          Param{"clampHigh", ParamType::Bool, true, "clamp to high (else values above it stay)"}},
         {"input"},
         [](const OperationArgs& a) {
             return createClampTask(a.node(), a.time(), a.color("low"), a.color("high"),
                                    a.flag("clampLow"), a.flag("clampHigh"), a.input("input"));
         }});
    ops.push_back(
        {"threshold",
         "replace below or above a threshold",
         {Param{"threshold", ParamType::Color4, json::array({0.5, 0.5, 0.5, 0.5}),
                "per channel, the value a pixel is compared with"}
              .anyValue(),
          Param{"replaceBelow", ParamType::Bool, true,
                "values below the threshold become belowColor's"},
          Param{"belowColor", ParamType::Color4, kClear, "what replaces values below the threshold"}
              .anyValue(),
          Param{"replaceAbove", ParamType::Bool, false,
                "values above the threshold become aboveColor's"},
          Param{"aboveColor", ParamType::Color4, kWhite, "what replaces values above the threshold"}
              .anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             return createThresholdTask(a.node(), a.time(), a.color("threshold"),
                                        a.flag("replaceBelow"), a.color("belowColor"),
                                        a.flag("replaceAbove"), a.color("aboveColor"),
                                        a.input("input"));
         }});
    ops.push_back({"cleanupclamp",
                   "alpha to [0, 1], colour to 0 and above",
                   {Param{"clampColorAtOne", ParamType::Bool, false,
                          "clamp colour to 1 as well (else only below 0)"}},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createCleanupClampTask(a.node(), a.time(), a.flag("clampColorAtOne"),
                                                     a.input("input"));
                   }});
    ops.push_back({"contrast",
                   "(c - pivot) contrast + pivot",
                   {Param{"contrast", ParamType::Color4, kWhite,
                          "per channel: 1 leaves it, above 1 spreads values away from pivot, below "
                          "1 draws them in"}
                        .anyValue(),
                    Param{"pivot", ParamType::Color4, json::array({0.18, 0.18, 0.18, 0}),
                          "the value contrast leaves unchanged, per channel"}
                        .anyValue()},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createContrastTask(a.node(), a.time(), a.color("contrast"),
                                                 a.color("pivot"), a.input("input"));
                   }});
    ops.push_back(
        {"gamma",
         "pivot (c / pivot)^(1 / gamma)",
         {Param{"gamma", ParamType::Color4, kWhite,
                "per channel: 1 leaves it, above 1 lifts the mid-tones; 0 leaves the channel alone"}
              .anyValue(),
          Param{"pivot", ParamType::Color4, kWhite,
                "the value gamma leaves unchanged, per channel (0: no change)"}
              .anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             return createGammaTask(a.node(), a.time(), a.color("gamma"), a.color("pivot"),
                                    a.input("input"));
         }});
    ops.push_back({"exponential",
                   "pivot (c / pivot)^exponent",
                   {Param{"exponent", ParamType::Color4, kWhite,
                          "per channel: 1 leaves it, above 1 darkens values below pivot"}
                        .anyValue(),
                    Param{"pivot", ParamType::Color4, kWhite,
                          "the value the exponent leaves unchanged, per channel (0: no change)"}
                        .anyValue()},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createExponentialTask(a.node(), a.time(), a.color("exponent"),
                                                    a.color("pivot"), a.input("input"));
                   }});
    ops.push_back(
        {"compressrange",
         "log2 range compression, or its inverse",
         {Param{"midGrey", ParamType::Number, 0.18, "the value the curve pivots on"}.range(1e-6,
                                                                                           1e6),
          Param{"maximum", ParamType::Number, 16, "the value mapped to scale"}.range(1e-6, 1e6),
          Param{"scale", ParamType::Number, 1, "what maximum becomes"}.range(1e-6, 1e6),
          Param{"expand", ParamType::Bool, false,
                "expand: the inverse curve, undoing a compression"}},
         {"input"},
         [](const OperationArgs& a) {
             return createCompressRangeTask(a.node(), a.time(), a.number("midGrey"),
                                            a.number("maximum"), a.number("scale"),
                                            a.flag("expand"), a.input("input"));
         }});
    ops.push_back({"ncontrastboost",
                   "smoothstep contrast",
                   {Param{"amount", ParamType::Number, 1,
                          "0 leaves the image; 1 applies the full smoothstep 6x⁵ − 15x⁴ + 10x³ to "
                          "values in [0, 1]; values outside [0, 1] stay"}
                        .range(-100, 100),
                    Param{"alphaToo", ParamType::Bool, false, "boost alpha too"}},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createNContrastBoostTask(a.node(), a.time(), a.number("amount"),
                                                       a.flag("alphaToo"), a.input("input"));
                   }});
    ops.push_back(
        {"hueshift",
         "hue rotation and saturation",
         {Param{"hueShift", ParamType::Number, 0, "the rotation of hue, in degrees"}.range(-360000,
                                                                                           360000),
          Param{"saturation", ParamType::Number, 1,
                "the factor of saturation (0: grey, 1: unchanged)"}
              .range(0, 1000),
          Param{"weights", ParamType::Color3, json::array({0.2126, 0.7152, 0.0722}),
                "the luma weights of R, G and B, about which hue turns"}
              .anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             HueShiftParams p;
             p.hueShift = a.number("hueShift");
             p.saturation = a.number("saturation");
             p.weights = a.color3("weights");
             return createHueShiftTask(a.node(), a.time(), p, a.input("input"));
         }});
    ops.push_back({"unpremultiply",
                   "colour divided by alpha where alpha is not 0",
                   {},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createMultInverseTask(a.node(), a.time(), a.input("input"));
                   },
                   "RGB / A where A ≠ 0; pixels of alpha 0 keep their colour exactly. As "
                   "`oiiotool --unpremult`."});
    ops.back().aliases = {"multinverse"};
    ops.push_back({"premultiply",
                   "colour multiplied by alpha",
                   {},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createPremultiplyTask(a.node(), a.time(), a.input("input"));
                   },
                   "RGB × A. An image without alpha has alpha 0 and premultiplies to black. As "
                   "`oiiotool --premult`."});
    ops.push_back(
        {"luminance",
         "grey from weighted RGB",
         {Param{"weights", ParamType::Color3, kRec709Luma, "the weight of R, G and B"}.anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             return createLuminanceTask(a.node(), a.time(), a.color3("weights"), a.input("input"));
         },
         "R = G = B = w<sub>r</sub> R + w<sub>g</sub> G + w<sub>b</sub> B; alpha "
         "unchanged. The default weights are Rec.709's."});
    ops.push_back(
        {"posterize",
         "quantise to levels",
         {Param{"levels", ParamType::Number, 8,
                "the count of levels between low and high (below 2 counts as 2)"}
              .range(2, 65536),
          Param{"low", ParamType::Number, 0, "the value of the lowest level"}.anyValue(),
          Param{"high", ParamType::Number, 1, "the value of the highest level"}.anyValue(),
          Param{"alphaToo", ParamType::Bool, false, "quantise alpha too"},
          Param{"clampToRange", ParamType::Bool, true,
                "values outside [low, high] go to the nearest end (else they are quantised too)"}},
         {"input"},
         [](const OperationArgs& a) {
             return createPosterizeTask(a.node(), a.time(), a.number("levels"), a.number("low"),
                                        a.number("high"), a.flag("alphaToo"),
                                        a.flag("clampToRange"), a.input("input"));
         }});
    ops.push_back({"hsvconvert",
                   "RGB to HSV, or back",
                   {Param{"toHSV", ParamType::Bool, true,
                          "RGB to HSV (else HSV back to RGB); hue from 0 to 1"}},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createHSVConvertTask(a.node(), a.time(), a.flag("toHSV"),
                                                   a.input("input"));
                   }});
    ops.push_back(
        {"lab",
         "RGB to L*a*b*, or back",
         {Param{"toLab", ParamType::Bool, true, "RGB (linear Rec.709, D65) to L*a*b* (else back)"}},
         {"input"},
         [](const OperationArgs& a) {
             return createLabTask(a.node(), a.time(), a.flag("toLab"), a.input("input"));
         }});
    ops.push_back(
        {"maxrgbtoalpha", "alpha = max(R, G, B)", {}, {"input"}, [](const OperationArgs& a) {
             return createMaxRGBToAlphaTask(a.node(), a.time(), a.input("input"));
         }});
    ops.push_back(
        {"minrgbtoalpha", "alpha = min(R, G, B)", {}, {"input"}, [](const OperationArgs& a) {
             return createMinRGBToAlphaTask(a.node(), a.time(), a.input("input"));
         }});
    ops.push_back(
        {"bloom",
         "bloom control",
         {Param{"threshold", ParamType::Number, 1, "the brightness above which the bloom acts"}
              .anyValue(),
          Param{"gain", ParamType::Number, 0.5,
                "how much of the brightness above the threshold is kept (1: all of it)"}
              .atLeast(0),
          Param{"isolate", ParamType::Bool, false,
                "brightness below the threshold becomes 0, leaving only the bloom"},
          Param{"luminance", ParamType::Bool, true,
                "compare luminance with the threshold (else each channel)"}},
         {"input"},
         [](const OperationArgs& a) {
             BloomControlSettings b;
             b.threshold = a.number("threshold");
             b.gain = a.number("gain");
             b.isolate = a.flag("isolate");
             b.luminance = a.flag("luminance");
             return createBloomTask(a.node(), a.time(), b, a.input("input"));
         }});
    ops.push_back({"rgbacurves",
                   "a curve per channel, (x, y) pairs",
                   {Param{"red", ParamType::Floats, json::array(),
                          "(x, y) pairs sorted by x, linear between points; empty leaves red alone"}
                        .anyValue(),
                    Param{"green", ParamType::Floats, json::array(),
                          "(x, y) pairs for green; empty leaves it alone"}
                        .anyValue(),
                    Param{"blue", ParamType::Floats, json::array(),
                          "(x, y) pairs for blue; empty leaves it alone"}
                        .anyValue(),
                    Param{"alpha", ParamType::Floats, json::array(),
                          "(x, y) pairs for alpha; empty leaves it alone"}
                        .anyValue()},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createRGBACurvesTask(a.node(), a.time(), a.floats("red"),
                                                   a.floats("green"), a.floats("blue"),
                                                   a.floats("alpha"), a.input("input"));
                   }});
    ops.push_back({"lumacurves",
                   "a curve on luma, (x, y) pairs",
                   {Param{"weights", ParamType::Color3, json::array({0.2126, 0.7152, 0.0722}),
                          "the luma weights of R, G and B"}
                        .anyValue(),
                    Param{"points", ParamType::Floats, json::array({0, 0, 1, 1}),
                          "the curve on luma: (x, y) pairs sorted by x; colour is scaled by y / x"}
                        .anyValue()},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createLumaCurvesTask(a.node(), a.time(), a.color3("weights"),
                                                   a.floats("points"), a.input("input"));
                   }});
    ops.push_back(
        {"fringe", "keep half-covered edge pixels", {}, {"input"}, [](const OperationArgs& a) {
             return createFringeTask(a.node(), a.time(), a.input("input"));
         }});
    ops.push_back({"screenrgbtoalpha",
                   "a screen key: 1 red, 2 green, 4 blue",
                   {Param{"channel", ParamType::Int, 2,
                          "the screen's channel: 1 red, 2 green, 4 blue (other values: alpha 0)"}
                        .range(1, 4)},
                   {"input"},
                   [](const OperationArgs& a) {
                       return createScreenRGBToAlphaTask(
                           a.node(), a.time(), uint64_t(a.integer("channel")), a.input("input"));
                   }});
    ops.push_back(
        {"hsvcomponenttoalpha",
         "alpha = hue (0), saturation (1) or value (2)",
         {Param{"component", ParamType::Int, 2, "0 hue, 1 saturation, 2 value"}.range(0, 2)},
         {"input"},
         [](const OperationArgs& a) {
             return createHSVComponentToAlphaTask(
                 a.node(), a.time(), HSVComponent(a.integer("component")), a.input("input"));
         }});
    ops.push_back(
        {"logconvert",
         "Cineon-style log conversion",
         {Param{"blackCode", ParamType::Color4, json::array({0.0929, 0.0929, 0.0929, 0}),
                "the code value of black (0 to 1, 95/1023 ≈ 0.0929 for Cineon)"}
              .range(-1, 2),
          Param{"whiteCode", ParamType::Color4, json::array({0.6696, 0.6696, 0.6696, 1}),
                "the code value of reference white (685/1023 ≈ 0.6696 for Cineon)"}
              .range(-1, 2),
          Param{"density", ParamType::Color4, json::array({3.41, 3.41, 3.41, 1}),
                "density per unit of code (0.002 × 1023 / 0.6 ≈ 3.41 for Cineon; 0 counts as 1)"}
              .range(-1000, 1000),
          Param{"toLog", ParamType::Bool, true, "linear to log (else log back to linear)"},
          Param{"alphaToo", ParamType::Bool, false, "convert alpha too"}},
         {"input"},
         [](const OperationArgs& a) {
             return createAnalyticalLogConvertTask(
                 a.node(), a.time(), a.color("blackCode"), a.color("whiteCode"), a.color("density"),
                 a.flag("toLog"), a.flag("alphaToo"), a.input("input"));
         }});
    ops.push_back(
        {"copy", "the input as it is (a cache point)", {}, {"input"}, [](const OperationArgs& a) {
             return createInPlaceCopyTask(a.node(), a.time(), a.input("input"));
         }});
}

void declareKeyOperations(OperationList& ops) {
    ops.push_back(
        {"lumakey",
         "alpha from luminance between two levels",
         {Param{"low", ParamType::Number, 0, "luminance at and below which alpha is 0"}.anyValue(),
          Param{"high", ParamType::Number, 1, "luminance at and above which alpha is 1"}.anyValue(),
          {"invert", ParamType::Bool, false, "alpha 1 for dark, 0 for bright"},
          Param{"weights", ParamType::Color3, kRec709Luma, "the luminance weights"}.anyValue()},
         {"input"},
         [](const OperationArgs& a) {
             return createLumaKeyTask(a.node(), a.time(), a.color3("weights"), a.number("low"),
                                      a.number("high"), a.flag("invert"), a.input("input"));
         },
         "Y = weights · RGB; A = clamp((Y − low) / (high − low), 0, 1) (a step at "
         "`low` when high = low), or 1 − that when inverted. Colour is unchanged: "
         "follow with `premultiply` to cut the image out."});
    ops.push_back(
        {"chromakey",
         "a green- or blue-screen key with spill suppression",
         {Param{"key", ParamType::Color3, json{0.1, 0.8, 0.2}, "the screen colour"}.anyValue(),
          Param{"tolerance", ParamType::Number, 0.3,
                "chroma distance (relative to the key's) still keyed out fully"}
              .range(0, 1e6),
          Param{"softness", ParamType::Number, 0.4, "distance over which alpha rises to 1"}.range(
              0, 1e6),
          Param{"spill", ParamType::Number, 1, "how much of the screen's cast to remove"}.range(0,
                                                                                                1)},
         {"input"},
         [](const OperationArgs& a) {
             return createChromaKeyTask(a.node(), a.time(), a.color3("key"), a.number("tolerance"),
                                        a.number("softness"), a.number("spill"), a.input("input"));
         },
         "With Y the Rec.709 luma, chroma is (B − Y, R − Y). d = |chroma − key chroma| / |key "
         "chroma|; the matte is clamp((d − tolerance) / softness, 0, 1) (a step when softness is "
         "0) and A becomes A × matte. Spill: the key's strongest channel c becomes c − spill × "
         "max(0, c − max(other two)). Colour is otherwise unchanged: follow with `premultiply`."});
}

}  // namespace Private

}  // namespace TESSERA
