// Defocus by a lens aperture, of one size or of a size that follows a
// control image; and the blur whose size follows a control image.
#include "imglib/defocus.h"
#include "filter/neighbourhoodtask.h"
#include "filtertasks.h"
#include "imglib/fastfilter.h"
#include "imglib/variableblur.h"
#include "private/operation.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {
class Defocus : public NeighbourhoodTask {
public:
    Defocus(const std::string& name, float time, const DefocusParams& p, bool smooth, TaskPtr input)
        : NeighbourhoodTask(name, time, "Defocus", std::move(input)), m_p(p), m_smooth(smooth) {
        int64_t padX, padY;
        IMGLIB::GetDefocusPadding(p.size, p.aspect, p.blades, p.rotation, smooth, padX, padY);
        setPadding(padX, padY);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_p.size << "," << m_p.aspect << "," << m_p.blades << "," << m_p.rotation << ","
          << m_smooth;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(
            IMGLIB::Defocus(out, in[0], m_p.size, m_p.aspect, m_p.blades, m_p.rotation, m_smooth));
    }

private:
    DefocusParams m_p;
    bool m_smooth;
};

class ImageDefocusTask : public NeighbourhoodTask {
public:
    ImageDefocusTask(const std::string& name, float time, const ImageDefocusParams& p,
                     TaskPtr image, TaskPtr control)
        : NeighbourhoodTask(name, time, "ImageDefocus", std::move(image)), m_p(p) {
        int64_t padX, padY;
        const DefocusParams& d = p.defocus;
        IMGLIB::GetDefocusPadding(d.size, d.aspect, d.blades, d.rotation, p.smoothEdges, padX,
                                  padY);
        setPadding(padX, padY);
        addAuxiliaryInput(std::move(control), p.controlChannel, 0, 0);
    }

protected:
    void describe(CacheIDStream& s) override {
        const DefocusParams& d = m_p.defocus;
        s << d.size << "," << d.aspect << "," << d.blades << "," << d.rotation << ","
          << m_p.smoothEdges << "," << m_p.controlChannel << "," << m_p.controlScale << ","
          << m_p.layers;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        const DefocusParams& d = m_p.defocus;
        check(IMGLIB::NonPhysicalDepthOfField(out, in[0], in[1], m_p.controlChannel,
                                              m_p.controlScale * d.size, d.size, m_p.layers,
                                              {d.aspect, d.blades, d.rotation, m_p.smoothEdges}));
    }

private:
    ImageDefocusParams m_p;
};

class ImageBlur : public NeighbourhoodTask {
public:
    ImageBlur(const std::string& name, float time, const ImageBlurParams& p, TaskPtr image,
              TaskPtr control)
        : NeighbourhoodTask(name, time, "ImageBlur", std::move(image)), m_p(p) {
        setPadding(IMGLIB::GetFilterPadding(p.sizeX), IMGLIB::GetFilterPadding(p.sizeY));
        addAuxiliaryInput(std::move(control), p.controlChannel, 0, 0);
    }

protected:
    void describe(CacheIDStream& s) override {
        s << m_p.sizeX << "," << m_p.sizeY << "," << int(m_p.filter) << "," << m_p.controlChannel
          << "," << m_p.controlScale << "," << m_p.layers;
    }
    void filter(const IMGLIB::Image* out, const std::vector<const IMGLIB::Image*>& in) override {
        check(IMGLIB::ImageBlur(out, in[0], in[1], m_p.sizeX, m_p.sizeY, m_p.controlScale,
                                m_p.layers, m_p.controlChannel, m_p.filter));
    }

private:
    ImageBlurParams m_p;
};

// Both images are required (the values are checked through the declaration).
void checkControl(const std::string& type, const TaskPtr& image, const TaskPtr& control) {
    if (!image) throw UTIL::ErrorException(type + " requires an input.");
    if (!control) throw UTIL::ErrorException(type + " requires a control input.");
}

}  // namespace Private

TaskPtr createDefocusTask(const std::string& name, float time, const DefocusParams& params,
                          TaskPtr input, bool smoothEdges) {
    Private::checkParameters("defocus", name,
                             {{"size", params.size},
                              {"aspect", params.aspect},
                              {"blades", params.blades},
                              {"rotation", params.rotation}});
    return TaskPtr(new Private::Defocus(name, time, params, smoothEdges, std::move(input)));
}

TaskPtr createImageDefocusTask(const std::string& name, float time,
                               const ImageDefocusParams& params, TaskPtr image, TaskPtr control) {
    const DefocusParams& d = params.defocus;
    Private::checkParameters(
        "imagedefocus", name,
        {{"size", d.size},
         {"aspect", d.aspect},
         {"blades", d.blades},
         {"rotation", d.rotation},
         {"channel", Private::choiceValue(Private::channelChoices(), params.controlChannel)},
         {"scale", params.controlScale},
         {"layers", params.layers}});
    Private::checkControl("ImageDefocus", image, control);
    return TaskPtr(
        new Private::ImageDefocusTask(name, time, params, std::move(image), std::move(control)));
}

TaskPtr createImageBlur(const std::string& name, float time, const ImageBlurParams& params,
                        const BloomControlSettings& bloom, TaskPtr image, TaskPtr control) {
    Private::checkParameters(
        "imageblur", name,
        {{"size", {params.sizeX, params.sizeY}},
         {"filter", Private::choiceValue(Private::kernelChoices(), params.filter)},
         {"channel", Private::choiceValue(Private::channelChoices(), params.controlChannel)},
         {"scale", params.controlScale},
         {"layers", params.layers}});
    Private::checkControl("ImageBlur", image, control);
    return TaskPtr(new Private::ImageBlur(name, time, params,
                                          Private::withBloom(name, time, bloom, std::move(image)),
                                          std::move(control)));
}

namespace Private {

DefocusParams defocusParams(const OperationArgs& a) {
    DefocusParams p;
    p.size = a.number("size");
    p.aspect = a.number("aspect");
    p.blades = a.integer("blades");
    p.rotation = a.number("rotation");
    return p;
}

// The aperture's settings, which defocus and image defocus share, then
// `params`.
std::vector<Param> withAperture(std::vector<Param> params) {
    const std::vector<Param> aperture = {
        required("size", ParamType::Number, 6.5, "the aperture's diameter, in pixels")
            .range(0, 2048),
        Param{"aspect", ParamType::Number, 1, "the aperture's width over its height"}.range(0.01,
                                                                                            100),
        Param{"blades", ParamType::Int, 0,
              "the aperture's blade count: a polygon of 3 or more sides; 0 to 2: a disc"}
            .range(0, 64),
        Param{"rotation", ParamType::Number, 0, "the polygon's rotation, in degrees"}.range(-360000,
                                                                                            360000),
        Param{"smooth", ParamType::Bool, true,
              "weigh each pixel by the part of it inside the aperture (else in or out)"}};
    params.insert(params.begin(), aperture.begin(), aperture.end());
    return params;
}

void declareDefocusOperations(OperationList& ops) {
    ops.push_back({"defocus",
                   "convolution by a lens aperture (a disc, or a polygon of 3 or more blades)",
                   withAperture({}),
                   {"input"},
                   [](const OperationArgs& a) {
                       return createDefocusTask(a.node(), a.time(), defocusParams(a),
                                                a.input("input"), a.flag("smooth"));
                   }});
    ops.push_back({"imagedefocus",
                   "defocus whose size follows a channel of the control image (0 to 1)",
                   withAperture({channelParam("channel", "a", "the control image's channel"),
                                 Param{"scale", ParamType::Number, 1,
                                       "the control's factor: the size at a pixel is size × "
                                       "clamp(control × scale, 0, 1)"}
                                     .anyValue(),
                                 Param{"layers", ParamType::Int, 8,
                                       "the count of fixed-size defocuses blended between"}
                                     .range(1, 256)}),
                   {"input", "control"},
                   [](const OperationArgs& a) {
                       ImageDefocusParams p;
                       p.defocus = defocusParams(a);
                       p.smoothEdges = a.flag("smooth");
                       p.controlChannel = a.channel("channel");
                       p.controlScale = a.number("scale");
                       p.layers = a.integer("layers");
                       return createImageDefocusTask(a.node(), a.time(), p, a.input("input"),
                                                     a.input("control"));
                   }});
    ops.back().aliases = {"imageDefocus"};
    ops.push_back(
        {"imageblur",
         "blur whose size follows a channel of the control image (0 to 1)",
         {required("size", ParamType::Vec2, {5, 3},
                   "the largest blur's width and height, in pixels (where the control is 1)")
              .range(0, 2048),
          kernelParam("filter", "gaussian", "the filter's shape"),
          channelParam("channel", "a", "the control image's channel"),
          Param{"scale", ParamType::Number, 1,
                "the control's factor: the size at a pixel is size × clamp(control × scale, 0, 1)"}
              .anyValue(),
          Param{"layers", ParamType::Int, 8, "the count of fixed-size blurs blended between"}.range(
              1, 256)},
         {"input", "control"},
         [](const OperationArgs& a) {
             ImageBlurParams p;
             p.sizeX = a.vec2("size").x;
             p.sizeY = a.vec2("size").y;
             p.filter = a.kernel("filter");
             p.controlChannel = a.channel("channel");
             p.controlScale = a.number("scale");
             p.layers = a.integer("layers");
             return createImageBlur(a.node(), a.time(), p, noBloom(), a.input("input"),
                                    a.input("control"));
         }});
    ops.back().aliases = {"imageBlur"};
}

}  // namespace Private

}  // namespace TESSERA
