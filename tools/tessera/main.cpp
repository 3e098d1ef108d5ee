// tessera: renders graph files to image files.
//
//   tessera render GRAPH.json [options]
//   tessera demo [options]          the built-in demo graph, to out/
//   tessera ops [NAME]              the operations a graph may use, or one in full
//   tessera ops --markdown          the operator reference (docs/operators.md)
//
// Options: --threads N, --tile N, --mem MB, --disk MB, --stats (print the
// statistics XML), --debug-log FILE. Exit status 0 on success, 1 on any error.
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <thread>

#include "demo_graph.h"
#include "tessera.h"

using namespace TESSERA;

namespace {

struct Options {
    std::string command, graph;
    long threads = 0, tile = 0, mem = 0, disk = 0;
    bool stats = false, markdown = false;
    std::string debugLog;
};

[[noreturn]] void usage(const std::string& problem) {
    std::cerr << "tessera: " << problem << "\n"
              << "usage: tessera render GRAPH.json | demo | ops [NAME] [--markdown]  [--threads N] "
                 "[--tile N] [--mem MB]"
                 " [--disk MB] [--stats] [--debug-log FILE]\n";
    std::exit(1);
}

long number(const std::string& option, const char* text) {
    char* end = nullptr;
    const long value = text ? std::strtol(text, &end, 10) : 0;
    if (!text || *end || value <= 0) usage(option + " needs a positive whole number");
    return value;
}

Options parse(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--threads")
            o.threads = number(arg, next), ++i;
        else if (arg == "--tile")
            o.tile = number(arg, next), ++i;
        else if (arg == "--mem")
            o.mem = number(arg, next), ++i;
        else if (arg == "--disk")
            o.disk = number(arg, next), ++i;
        else if (arg == "--stats")
            o.stats = true;
        else if (arg == "--markdown")
            o.markdown = true;
        else if (arg == "--debug-log") {
            if (!next) usage("--debug-log needs a file");
            o.debugLog = next, ++i;
        } else if (arg.rfind("--", 0) == 0)
            usage("unknown option " + arg);
        else if (o.command.empty())
            o.command = arg;
        else if (o.graph.empty())
            o.graph = arg;
        else
            usage("unexpected argument " + arg);
    }
    if (o.command.empty()) usage("no command");
    return o;
}

// Writes the files and draws a progress bar on a terminal.
class Progress : public FileWriter {
public:
    Progress(size_t total, bool terminal) : m_total(total), m_terminal(terminal) {}
    void tileDone(const ImageBuffer& image, const OutputTileID& id) override {
        FileWriter::tileDone(image, id);
        const size_t done = ++m_done;
        if (!m_terminal) return;
        const int width = 40, filled = m_total ? int(width * done / m_total) : width;
        std::fprintf(stderr, "\r[%s%s] %3zu%%", std::string(size_t(filled), '#').c_str(),
                     std::string(size_t(width - filled), ' ').c_str(),
                     m_total ? 100 * done / m_total : 100);
        if (done == m_total) std::fprintf(stderr, "\n");
    }

private:
    size_t m_total;
    bool m_terminal;
    std::atomic<size_t> m_done{0};
};

int render(const Graph& graph, const Options& o) {
    std::vector<RenderDescription> outputs;
    size_t tiles = 0;
    for (const GraphOutput& out : graph.outputs) {
        outputs.push_back(out.description);
        tiles += TileID::countTiles(out.description.rect, int(RenderManager::getGlobalTileWidth()),
                                    int(RenderManager::getGlobalTileHeight()));
    }
    RCX_ptr_v4::ref_ptr<Progress> progress(new Progress(tiles, isatty(STDERR_FILENO)));
    for (size_t i = 0; i < graph.outputs.size(); ++i)
        progress->addOutput(i, graph.outputs[i].description, graph.outputs[i].files);
    const auto start = std::chrono::steady_clock::now();
    RenderManager::Render(outputs, progress, nullptr, true, RENDERTYPE_BATCH);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!progress->getErrors().empty()) return 1;
    struct rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    std::cout << "rendered " << tiles << " tiles in " << seconds << " s on "
              << (RenderManager::getRenderThreads()
                      ? RenderManager::getRenderThreads()
                      : std::max(1u, std::thread::hardware_concurrency()))
              << " threads; peak resident memory " << usage.ru_maxrss / 1024 << " MB\n";
    for (const GraphOutput& out : graph.outputs)
        for (const FileOutParams& file : out.files) std::cout << "wrote " << file.path << "\n";
    if (o.stats) RenderManager::getStatistics()->write(std::cout);
    return 0;
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

// Images the tile cache kept may lie in swap files: they go with the cache.
int finish(int status) {
    RenderManager::clearSpeculativeCache();
    return status;
}

int main(int argc, char** argv) {
    const Options o = parse(argc, argv);
    watchInterrupts();
    try {
        useRenderThreadsForFiles();
        if (o.threads) RenderManager::setRenderThreads(uint64_t(o.threads));
        if (o.tile) RenderManager::setGlobalTileSize(o.tile, o.tile);
        if (o.mem) RenderManager::SetMaxImageMemory(uint64_t(o.mem));
        if (o.disk) RenderManager::SetMaxDiskUsage(uint64_t(o.disk));
        if (!o.debugLog.empty()) {
            RenderManager::setRenderLogFile(o.debugLog);
            RenderManager::setRenderDebug(true);
        }
        if (o.command == "ops") {
            std::cout << (o.markdown        ? operatorReference()
                          : o.graph.empty() ? describeOperations()
                                            : describeOperation(o.graph));
            return 0;
        }
        if (o.command == "demo") return finish(render(loadGraph(kDemoGraph, "."), o));
        if (o.command == "render") {
            if (o.graph.empty()) usage("render needs a graph file");
            return finish(render(loadGraphFile(o.graph), o));
        }
        usage("unknown command " + o.command);
    } catch (const RenderCancelledException&) {
        std::cerr << "tessera: interrupted" << std::endl;
        return finish(128 + (s_interrupt ? s_interrupt.load() : SIGINT));
    } catch (const std::exception& e) {
        std::cerr << "tessera: " << e.what() << std::endl;
        return finish(1);
    }
}
