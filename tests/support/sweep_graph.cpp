#include "support/sweep_graph.h"

#include <OpenImageIO/imageio.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace TESSERA {
namespace testing {

namespace fs = std::filesystem;

const UTIL::Rect kSweepArea(-4, -3, 70, 50);
const UTIL::Rect kSweepRampArea(18, 9, 76, 66);
const UTIL::Rect kSweepRender(-9, -7, 79, 58);

SweepFiles::SweepFiles()
    : dir(fs::temp_directory_path() / ("tessera_sweep_" + std::to_string(::getpid()))) {
    fs::create_directories(dir);
    {
        // An EXR of halves with render passes beside RGBAZ: colour above 1
        // in places, alpha that varies, depth from 0.5 to 12; the passes
        // travel by name (a shuffle and a copy read them).
        const int w = int(kSweepArea.width()), h = int(kSweepArea.height());
        constexpr int kChannels = 7;
        OIIO::ImageSpec spec(w, h, kChannels, OIIO::TypeDesc::HALF);
        spec.channelnames = {"R", "G", "B", "A", "Z", "diffuse.G", "forward.u"};
        spec.x = int(kSweepArea.xmin), spec.y = int(kSweepArea.ymin);
        spec.full_x = spec.x, spec.full_y = spec.y;
        std::vector<float> pixels(size_t(w) * h * kChannels);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x)
                for (int c = 0; c < kChannels; ++c)
                    pixels[(size_t(y) * w + x) * kChannels + c] =
                        c == 4 ? 0.5f + float((x + 2 * y) % 24) / 2.0f
                               : float((x * 7 + y * 3 + c * 5) % 23) / (c == 3 ? 22.0f : 9.0f);
        auto out = OIIO::ImageOutput::create(image());
        if (!out || !out->open(image(), spec) ||
            !out->write_image(OIIO::TypeDesc::FLOAT, pixels.data()))
            throw std::runtime_error("cannot write " + image());
        out->close();
        std::ofstream(lut()) << "Version 1\nFrom 0.0 1.0\nLength 3\nComponents 1\n{\n"
                                "0.0\n0.3\n1.0\n}\n";
        std::ofstream(config()) << "ocio_profile_version: 1\n"
                                   "roles:\n  default: linear\n"
                                   "displays:\n  sRGB:\n    - !<View> {name: Raw, colorspace: "
                                   "linear}\n"
                                   "colorspaces:\n"
                                   "  - !<ColorSpace>\n    name: linear\n"
                                   "  - !<ColorSpace>\n    name: warm\n"
                                   "    from_reference: !<MatrixTransform> {matrix: [1.2, 0.1, 0, "
                                   "0, 0, 1, 0, 0, 0, 0.2, 0.8, 0, 0, 0, 0, 1]}\n";
    }
}

SweepFiles::~SweepFiles() {
    fs::remove_all(dir);
}

namespace {

// A value for a parameter the operation requires: its declared example
// (file names are those SweepFiles writes).
std::string requiredValue(const std::string& op, const OperationParameter& p) {
    if (p.example.empty()) throw std::runtime_error(op + ": no example for required " + p.name);
    return p.example;
}

}  // namespace

std::string sweepGraph(const OperationDescription& op, const SweepFiles& files,
                       const std::map<std::string, std::string>& values) {
    std::ostringstream area;
    area << "[" << kSweepArea.xmin << "," << kSweepArea.ymin << "," << kSweepArea.xmax << ","
         << kSweepArea.ymax << "]";
    std::ostringstream g;
    g << "{\"nodes\": ["
      << "{\"id\": \"plate\", \"op\": \"filein\", \"params\": {\"path\": \"" << files.image()
      << "\"}},"
      << "{\"id\": \"ramp\", \"op\": \"shuffle\", \"params\": {\"z\": \"a.b\"}, "
         "\"inputs\": {\"a\": \"rampRGBA\"}},"
      << "{\"id\": \"rampRGBA\", \"op\": \"linearramp\", \"params\": {\"start\": [0, 0], "
         "\"end\": [60, 45], \"startColor\": [0.9, 0.1, 0.2, 1], \"endColor\": [0.1, 0.6, 1.4, "
         "0.5], \"area\": ["
      << kSweepRampArea.xmin << "," << kSweepRampArea.ymin << "," << kSweepRampArea.xmax << ","
      << kSweepRampArea.ymax << "]}},"
      << "{\"id\": \"op\", \"op\": \"" << op.name << "\", \"params\": {";
    bool first = true;
    for (const OperationParameter& p : op.parameters) {
        // Optional parameters keep their defaults unless the default would
        // make the operation a no-op (the declaration then gives an example).
        const auto given = values.find(p.name);
        if (given == values.end() && !p.defaultValue.empty() && p.example.empty()) continue;
        g << (first ? "" : ", ") << "\"" << p.name
          << "\": " << (given != values.end() ? given->second : requiredValue(op.name, p));
        first = false;
    }
    g << "}, \"inputs\": {";
    for (size_t i = 0; i < op.inputs.size(); ++i)
        g << (i ? ", " : "") << "\"" << op.inputs[i] << "\": \"" << (i == 0 ? "plate" : "ramp")
          << "\"";
    g << "}}], \"outputs\": [{\"node\": \"op\", \"rect\": [" << kSweepRender.xmin << ","
      << kSweepRender.ymin << "," << kSweepRender.xmax << "," << kSweepRender.ymax
      << "], \"channels\": \"RGBA\"}]}";
    return g.str();
}

}  // namespace testing
}  // namespace TESSERA
