// A small host: builds a graph, renders it into its own buffer, and writes
// it to a file. Built against an installed Tessera (see README.md here).
#include <tessera/tessera.h>

#include <cstdio>
#include <exception>
#include <string>

using namespace TESSERA;

int main(int argc, char** argv) {
    const std::string path = argc > 1 ? argv[1] : "host.exr";
    try {
        const UTIL::Rect frame(0, 0, 320, 180);
        // A checkerboard, warmed up, with a title on it.
        TaskPtr board = createCheckerboardTask("board", 0, {0.18f, 0.18f, 0.18f, 1},
                                               {0.5f, 0.5f, 0.5f, 1}, 20, frame);
        TaskPtr warm = createGainTask("warm", 0, {1.2f, 1.0f, 0.8f, 1}, board);
        TextParams title;
        title.text = "Tessera host";
        title.size = 28;
        title.position = Imath::V2f(20, 100);
        TaskPtr comp = createCompositeTask("over", 0, COMPOSITE_OVER, false, false, false, 1.0f,
                                           createTextTask("title", 0, title), warm);

        // Pixels into the host's own memory, with progress.
        RenderOptions options;
        options.progress = [](const RenderProgress& p) {
            std::fprintf(stderr, "\r%3.0f%%", 100 * p.fraction());
        };
        RenderedImage image = renderImage(comp, frame, IMGLIB::CHANNELS_RGBA, options);
        std::fprintf(stderr, "\n");
        double sum = 0;
        for (size_t i = 0; i < image.pixels.size(); i += 4) sum += image.pixels[i];
        std::printf("mean red %.4f over %lld x %lld pixels\n",
                    sum / double(image.pixels.size() / 4), (long long)frame.width(),
                    (long long)frame.height());

        // The same output written to a file by the library's writer.
        RCX_ptr_v4::ref_ptr<FileWriter> writer(new FileWriter);
        const RenderDescription output(comp, frame, IMGLIB::CHANNELS_RGBA);
        writer->addOutput(0, output, {FileOutParams{path}});
        RenderManager::Render({output}, writer, nullptr, true, RENDERTYPE_BATCH);
        std::printf("wrote %s\n", path.c_str());
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "host: %s\n", e.what());
        return 1;
    }
}
