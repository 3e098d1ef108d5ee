// tessera: renders graph files to image files.
//
//   tessera render GRAPH.json|- [--frames LIST] [--set NODE.PARAM=VALUE]... [options]
//   tessera FILE... --VERB [KEY=VALUE]... -o FILE  a graph written as a chain (chain.h)
//   tessera demo [options]          the built-in demo graph, to out/
//   tessera info FILE... [--stats]  what files hold
//   tessera mosaic FILE... -o SHEET  a contact sheet
//   tessera ops [NAME] [--markdown] the operations a graph may use
//   tessera ops --pictures DIR      a picture of each, for the reference
//
// Exit status: 0 success, 1 a render or file failure, 2 a usage or graph
// file error, 128 + the signal when interrupted.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "chain.h"
#include "demo_graph.h"
#include "info.h"
#include "mosaic.h"
#include "operator_pictures.h"
#include "tessera.h"
#include "view.h"

using namespace TESSERA;

namespace {

constexpr int kUsageError = 2, kRenderError = 1;

struct RenderSettings {
    uint64_t threads = 0, tile = 0, mem = 0, disk = 0;
    bool stats = false, quiet = false;
    std::string debugLog;
    std::vector<std::string> overrides;
    std::string frames;
    bool dumpGraph = false;
};

using Clock = std::chrono::steady_clock;

std::string duration(double seconds) {
    char text[32];
    if (seconds < 60)
        std::snprintf(text, sizeof text, "%.1f s", seconds);
    else
        std::snprintf(text, sizeof text, "%d min %02d s", int(seconds) / 60, int(seconds) % 60);
    return text;
}

// Progress: on a terminal a bar redrawn in place, elsewhere (a log, a farm)
// one plain line every few seconds. Called on the main thread.
class ProgressReport {
public:
    explicit ProgressReport(bool quiet) : m_quiet(quiet), m_terminal(isatty(STDERR_FILENO) != 0) {}

    // `label` names what is rendering ("frame 12 (3 of 100)"), if not the whole run.
    void operator()(const RenderProgress& p, const std::string& label = {}) {
        if (label != m_label) {  // a new frame starts its bar afresh
            m_label = label;
            m_start = Clock::now();
            m_lastDone = ~uint64_t(0);
        }
        if (m_quiet || p.tilesDone == m_lastDone) return;
        const auto now = Clock::now();
        const bool done = p.tilesDone == p.tilesTotal;
        const auto interval = m_terminal ? std::chrono::milliseconds(100) : std::chrono::seconds(5);
        if (!done && now - m_lastReport < interval) return;
        m_lastReport = now;
        m_lastDone = p.tilesDone;
        const double elapsed = std::chrono::duration<double>(now - m_start).count();
        const double fraction = p.fraction();
        const std::string left =
            fraction > 0 && !done ? ", " + duration(elapsed / fraction - elapsed) + " left" : "";
        const auto tiles = (unsigned long long)p.tilesDone,
                   total = (unsigned long long)p.tilesTotal;
        if (m_terminal) {
            const int width = 30, filled = int(width * fraction);
            std::fprintf(stderr, "\r%s[%s%s] %3d%%  %llu/%llu tiles%s\033[K",
                         label.empty() ? "" : (label + " ").c_str(),
                         std::string(size_t(filled), '#').c_str(),
                         std::string(size_t(width - filled), ' ').c_str(), int(100 * fraction),
                         tiles, total, left.c_str());
            if (done) std::fprintf(stderr, "\n");
        } else {
            std::fprintf(stderr, "tessera: %s%d%% (%llu of %llu tiles) after %s%s\n",
                         label.empty() ? "" : (label + ": ").c_str(), int(100 * fraction), tiles,
                         total, duration(elapsed).c_str(), left.c_str());
        }
    }

private:
    const bool m_quiet, m_terminal;
    std::string m_label;
    Clock::time_point m_start = Clock::now();
    Clock::time_point m_lastReport = m_start;
    uint64_t m_lastDone = ~uint64_t(0);
};

std::string peakMemory() {
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return std::to_string(usage.ru_maxrss / 1024) + " MB";
}

int render(const Graph& graph, const RenderSettings& o) {
    RenderOptions options;
    ProgressReport report(o.quiet);
    uint64_t tiles = 0;
    options.progress = [&](const RenderProgress& p) {
        tiles = p.tilesTotal;
        report(p);
    };
    const auto start = Clock::now();
    writeGraphOutputs(graph, options);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!o.quiet) {
        std::cout << "rendered " << tiles << " tiles in " << seconds << " s on "
                  << RenderManager::getRenderThreads() << " threads; peak resident memory "
                  << peakMemory() << "\n";
        for (const GraphOutput& out : graph.outputs)
            for (const FileOutParams& file : out.files) std::cout << "wrote " << file.path << "\n";
    }
    if (o.stats) RenderManager::getStatistics()->write(std::cout);
    return 0;
}

// Renders each frame; a failed frame is reported and the next one rendered.
int renderFrames(const GraphSource& source, const std::vector<int>& frames,
                 const std::vector<ParameterOverride>& overrides, const RenderSettings& o) {
    // What stays the same from frame to frame is rendered once: the tile
    // cache keeps it for the next frames (what changes is never kept).
    if (frames.size() > 1) RenderManager::setSpeculativeCachingEnable(true);
    ProgressReport report(o.quiet);
    SequenceOptions options;
    options.progress = [&](const SequenceProgress& p) {
        report(p.tiles, "frame " + std::to_string(p.frame) + " (" + std::to_string(p.index + 1) +
                            " of " + std::to_string(p.count) + ")");
    };
    options.frameDone = [&](int frame, const std::string& error) {
        if (!error.empty())
            std::cerr << "tessera: " << error << std::endl;
        else if (!o.quiet)
            std::cout << "frame " << frame << " written" << std::endl;
    };
    const auto start = Clock::now();
    const std::vector<FrameFailure> failures = writeGraphFrames(source, frames, overrides, options);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (!o.quiet)
        std::cout << "rendered " << frames.size() - failures.size() << " of " << frames.size()
                  << " frames in " << seconds << " s (" << double(frames.size()) / seconds
                  << " frames per second) on " << RenderManager::getRenderThreads()
                  << " threads; peak resident memory " << peakMemory() << "\n";
    if (o.stats) RenderManager::getStatistics()->write(std::cout);
    if (failures.empty()) return 0;
    std::string list;
    for (const FrameFailure& f : failures)
        list += (list.empty() ? "" : ", ") + std::to_string(f.frame);
    std::cerr << "tessera: " << failures.size() << " of " << frames.size()
              << " frames failed: " << list << std::endl;
    return kRenderError;
}

void apply(const RenderSettings& o) {
    useRenderThreadsForFiles();
    // One render and the process ends: no later render could use a tile
    // kept for it, so none is kept (memory stays with the tiles in flight).
    RenderManager::setSpeculativeCachingEnable(false);
    if (o.threads) RenderManager::setRenderThreads(o.threads);
    if (o.tile) RenderManager::setGlobalTileSize(int64_t(o.tile), int64_t(o.tile));
    if (o.mem) RenderManager::SetMaxImageMemory(o.mem);
    if (o.disk) RenderManager::SetMaxDiskUsage(o.disk);
    if (!o.debugLog.empty()) {
        RenderManager::setRenderLogFile(o.debugLog);
        RenderManager::setRenderDebug(true);
    }
}

// The options render and demo share, each with the values it allows.
void addRenderOptions(CLI::App& command, RenderSettings& o) {
    command.add_option("--threads", o.threads, "render threads (default: one per core)")
        ->check(CLI::Range(uint64_t(1), uint64_t(1024)));
    command.add_option("--tile", o.tile, "tile width and height in pixels (default 256)")
        ->check(CLI::Range(uint64_t(8), uint64_t(16384)));
    // A megabyte budget is kept in bytes: 2^43 MB would overflow.
    command.add_option("--mem", o.mem, "image memory budget in MB")
        ->check(CLI::Range(uint64_t(1), uint64_t(1) << 30));
    command.add_option("--disk", o.disk, "swap file budget in MB")
        ->check(CLI::Range(uint64_t(1), uint64_t(1) << 30));
    command.add_flag("--stats", o.stats, "print the render statistics (XML)");
    command.add_flag("-q,--quiet", o.quiet, "no progress and no summary; errors only");
    command.add_option("--debug-log", o.debugLog, "write the render log to FILE")
        ->type_name("FILE");
}

}  // namespace

// Ctrl-C and SIGTERM cancel the render instead of killing the process, so
// it ends cleanly: its files are removed and so are its swap files. The
// signals are taken by one thread (blocked everywhere before any other
// thread starts), which may call into the library as no handler could.
std::atomic<int> s_interrupt{0};

void watchInterrupts() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread([signals] {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0) return;
        s_interrupt = signal;
        RenderManager::cancel(RENDERTYPE_BATCH, false);
        // A second signal, or a render that does not stop within the grace
        // period (a task that never asks CheckAbort), ends the process now.
        const timespec grace{10, 0};
        sigtimedwait(&signals, nullptr, &grace);
        std::fprintf(stderr, "tessera: interrupted; the render did not stop, exiting\n");
        std::_Exit(128 + signal);
    }).detach();
}

// Usage errors are one line each.
std::string oneLineError(const CLI::App*, const CLI::Error& e) {
    return std::string("tessera: ") + e.what() + " (see tessera --help)\n";
}

// Images the tile cache kept may lie in swap files: they go with the cache.
int finish(int status) {
    RenderManager::clearSpeculativeCache();
    return status;
}

GraphSource readStandardInput() {
    std::ostringstream text;
    text << std::cin.rdbuf();
    return GraphSource{text.str(), "."};
}

// Renders the graph at its frames (or as a still); what every command that
// renders a graph ends with.
int renderGraph(const GraphSource& source, const RenderSettings& settings) {
    std::vector<ParameterOverride> overrides;
    for (const std::string& text : settings.overrides)
        overrides.push_back(parseParameterOverride(text));
    std::vector<int> frames;
    if (!settings.frames.empty()) {
        try {
            frames = parseFrames(settings.frames);
        } catch (const std::invalid_argument& e) {
            std::cerr << "tessera: --frames: " << e.what() << std::endl;
            return kUsageError;
        }
    }
    apply(settings);
    if (frames.empty()) frames = graphFrames(source);
    if (frames.empty())
        return render(loadGraph(source.text, source.baseDirectory, overrides), settings);
    return renderFrames(source, frames, overrides, settings);
}

// Runs `body`, turning what it throws into a message and an exit status.
template <typename Body>
int reporting(const std::string& graphName, Body body) {
    try {
        return finish(body());
    } catch (const RenderCancelledException&) {
        std::cerr << "tessera: interrupted" << std::endl;
        return finish(128 + (s_interrupt ? s_interrupt.load() : SIGINT));
    } catch (const tessera_cli::ChainError& e) {
        std::cerr << "tessera: " << e.what() << std::endl;
        return finish(kUsageError);
    } catch (const GraphFileError& e) {
        std::cerr << "tessera: " << graphName << ": " << e.what() << std::endl;
        return finish(kUsageError);
    } catch (const std::exception& e) {
        // One line, whatever the message holds (several files may have failed).
        std::string message = e.what();
        while (!message.empty() && message.back() == '\n') message.pop_back();
        for (char& c : message)
            if (c == '\n') c = ';';
        std::cerr << "tessera: " << message << std::endl;
        return finish(kRenderError);
    }
}

// `tessera FILE... --VERB ... -o FILE`: the render options are taken out
// wherever they stand, the rest is the chain in its order.
int runChain(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    for (size_t i = 0; i < args.size(); ++i)
        if (args[i] == "--help" || args[i] == "-h") {
            // The help of the verb before it, else the chain's.
            for (size_t v = i; v-- > 0;)
                if (tessera_cli::isChainVerb(args[v])) {
                    std::cout << tessera_cli::chainVerbHelp(args[v]);
                    return 0;
                }
            std::cout << tessera_cli::chainHelp();
            return 0;
        }
    RenderSettings settings;
    CLI::App options("a chain", "tessera");
    options.failure_message(oneLineError);
    addRenderOptions(options, settings);
    options.add_option("--frames", settings.frames, "the frames to render")->type_name("LIST");
    options.add_flag("--dump-graph", settings.dumpGraph, "print the graph file, do not render");
    options.allow_extras();
    options.set_help_flag();
    try {
        options.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        options.exit(e);
        return kUsageError;
    }
    watchInterrupts();
    return reporting("the chain", [&] {
        const std::string graph = tessera_cli::chainGraph(options.remaining(), settings.frames);
        if (settings.dumpGraph) {
            std::cout << graph;
            return 0;
        }
        return renderGraph(GraphSource{graph, "."}, settings);
    });
}

int main(int argc, char** argv) {
    CLI::App app("Renders Tessera graph files to image files.", "tessera");
    // Errors are one line each.
    app.failure_message(oneLineError);
    app.set_version_flag("--version", "tessera " TESSERA_VERSION);
    app.set_help_all_flag("--help-all", "Print the help of every command and exit");
    app.footer(tessera_cli::chainHelp() +
               "\nExit status: 0 success, 1 a render or file failure, 2 a usage or graph-file "
               "error, 130 when interrupted.");
    app.require_subcommand(1);

    RenderSettings settings;
    std::string graphPath, opName, picturesDir;
    bool markdown = false;

    CLI::App* renderCommand = app.add_subcommand("render", "render a graph file's outputs");
    renderCommand
        ->add_option("GRAPH", graphPath, "the graph file (JSON); - reads it from standard input")
        ->required()
        ->check(CLI::ExistingFile | CLI::IsMember({"-"}));
    renderCommand
        ->add_option("--set", settings.overrides,
                     "NODE.PARAM=VALUE: override a parameter of a node, or a field of an output "
                     "(output.file=shot.####.exr; VALUE is JSON, or a bare word for a string); "
                     "repeatable")
        ->type_name("NODE.PARAM=VALUE")
        ->allow_extra_args(false);
    renderCommand
        ->add_option("--frames", settings.frames,
                     "the frames to render: 1-100, 1-100x2 (every second), 5, 1,4,9 or a mix "
                     "(default: the graph's own frames, or the graph as a still)")
        ->type_name("LIST");
    addRenderOptions(*renderCommand, settings);

    CLI::App* demoCommand = app.add_subcommand("demo", "render the built-in demo graph to out/");
    addRenderOptions(*demoCommand, settings);

    std::vector<std::string> infoFiles;
    bool infoStatistics = false;
    CLI::App* infoCommand = app.add_subcommand(
        "info", "what image files hold: parts, views, channels, windows, compression, attributes");
    infoCommand->add_option("FILE", infoFiles, "the files")->required();
    infoCommand->add_flag("--stats", infoStatistics,
                          "each channel's minimum, maximum, mean and NaN and infinite counts, as a "
                          "render reads them");

    tessera_cli::MosaicSettings mosaic;
    CLI::App* mosaicCommand = app.add_subcommand(
        "mosaic", "a contact sheet: each file fitted into a cell and labelled with its name");
    mosaicCommand->add_option("FILE", mosaic.files, "the files, in order")->required();
    mosaicCommand->add_option("-o,--output", mosaic.output, "the sheet's file")->required();
    mosaicCommand->add_option("--columns", mosaic.columns, "cells per row (default: a square)")
        ->check(CLI::Range(1, 1024));
    mosaicCommand
        ->add_option("--cell", mosaic.cell, "each cell's width and height (default 320 180)")
        ->expected(2)
        ->type_name("W H");
    mosaicCommand->add_flag("!--no-labels", mosaic.labels, "no file names under the pictures");
    mosaicCommand->add_flag("--dump-graph", settings.dumpGraph, "print the graph, do not render");
    addRenderOptions(*mosaicCommand, settings);

    CLI::App* opsCommand =
        app.add_subcommand("ops", "list the operations a graph may use, or describe one");
    opsCommand->add_option("NAME", opName, "one operation, in full");
    opsCommand->add_flag("--markdown", markdown, "the whole operator reference, in Markdown");
    opsCommand
        ->add_option("--pictures", picturesDir,
                     "write DIR/NAME.png for every operation: its example on a standard plate")
        ->type_name("DIR");

    std::string viewGraph;
    int viewPort = 0;
    std::optional<int> viewFrame;
    std::string viewFrames;
    CLI::App* viewCommand = app.add_subcommand(
        "view", "show a graph file's output in the browser, with a panel to tune and save it");
    viewCommand->add_option("GRAPH", viewGraph, "the graph file (JSON)")
        ->required()
        ->check(CLI::ExistingFile);
    viewCommand->add_option("--port", viewPort, "the port on 127.0.0.1 (default: any free one)")
        ->check(CLI::Range(0, 65535));
    viewCommand->add_option("--frame", viewFrame, "the frame shown first");
    viewCommand->add_option("--frames", viewFrames, "the frames the slider offers (1-100, 1-99x2)")
        ->type_name("LIST");

    // A first argument that is neither a command nor the program's own
    // option starts a chain.
    if (argc > 1) {
        const std::string first = argv[1];
        const auto commands =
            app.get_subcommands([&](CLI::App* c) { return c->get_name() == first; });
        if (commands.empty() && first != "--help" && first != "-h" && first != "--help-all" &&
            first != "--version")
            return runChain(argc, argv);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // --help and --version end here too, with status 0.
        const int status = app.exit(e);
        return status == 0 ? 0 : kUsageError;
    }

    if (viewCommand->parsed())
        return tessera_cli::runViewer(viewGraph, viewPort, viewFrame, viewFrames);
    watchInterrupts();
    if (opsCommand->parsed()) {
        if (!picturesDir.empty())
            return reporting("", [&] {
                writeOperatorPictures(picturesDir);
                return 0;
            });
        try {
            std::cout << (markdown         ? operatorReference()
                          : opName.empty() ? describeOperations()
                                           : describeOperation(opName));
        } catch (const std::invalid_argument& e) {
            std::cerr << "tessera: " << e.what() << std::endl;
            return kUsageError;
        }
        return 0;
    }
    if (infoCommand->parsed()) {
        apply(settings);
        int status = 0;
        for (const std::string& file : infoFiles)
            status = std::max(status, reporting(file, [&] {
                                  tessera_cli::describeFile(std::cout, file, infoStatistics);
                                  return 0;
                              }));
        return status;
    }
    if (mosaicCommand->parsed())
        return reporting("mosaic", [&] {
            const std::string graph = tessera_cli::mosaicGraph(mosaic);
            if (settings.dumpGraph) {
                std::cout << graph;
                return 0;
            }
            return renderGraph(GraphSource{graph, "."}, settings);
        });
    if (demoCommand->parsed())
        return reporting("demo graph", [&] {
            return renderGraph(GraphSource{kDemoGraph, "."}, settings);
        });
    const std::string name = graphPath == "-" ? "standard input" : graphPath;
    return reporting(name, [&] {
        const GraphSource source =
            graphPath == "-" ? readStandardInput() : readGraphSource(graphPath);
        return renderGraph(source, settings);
    });
}
