// The native part of the Python module: tasks, operations built by name,
// memory images over numpy arrays, renders into numpy arrays, graph files and
// the render settings. tessera/__init__.py turns the operation declarations
// this module lists into one Python function each.
//
// Every call that may wait for render threads releases the GIL, and code
// that runs Python from a render (progress, an array's release) takes it:
// a worker never waits for the GIL while the GIL's holder waits for it.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>
#include <sstream>

#include "refholder.h"
#include "tessera.h"
#include "viewer.h"

namespace py = pybind11;
using namespace TESSERA;

namespace {

using RectTuple = std::tuple<int64_t, int64_t, int64_t, int64_t>;
constexpr const char* kChannelNames = "RGBAZ";

// "RGBA" and the like, in the order the channels lie in memory.
uint64_t channelMask(const std::string& names) {
    const std::string known = kChannelNames;
    uint64_t mask = 0;
    int last = -1;
    for (const char c : names) {
        const size_t bit = known.find(char(std::toupper(static_cast<unsigned char>(c))));
        if (bit == std::string::npos)
            throw py::value_error("channels '" + names + "': unknown channel '" +
                                  std::string(1, c) + "' (R, G, B, A, Z)");
        if (int(bit) <= last)
            throw py::value_error("channels '" + names + "': give them once each, in the order " +
                                  "R, G, B, A, Z");
        last = int(bit);
        mask |= uint64_t(1) << bit;
    }
    if (mask == 0) throw py::value_error("channels: none given");
    return mask;
}

// Channels as a list of names ("R,G,B,forward.u"), or letters as above.
bool namesChannels(const std::string& channels) {
    return channels.find_first_not_of("RGBAZrgbaz") != std::string::npos || channels == "all";
}

// The channels a render of `task` gives for `channels`: letters ("RGBA"),
// or a list of names, layers ("diffuse.*") and "all" of the task's own.
uint64_t renderMask(const TaskPtr& task, const std::string& channels) {
    if (!namesChannels(channels)) return channelMask(channels);
    uint64_t defined = 0;
    {
        py::gil_scoped_release release;
        task->getOutputDescription(&defined, nullptr);
    }
    try {
        const uint64_t mask = parseChannelList(channels, defined);
        if (!mask) throw py::value_error("channels '" + channels + "': none given");
        return mask;
    } catch (const std::invalid_argument& e) {
        throw py::value_error("channels '" + channels + "': " + task->getName() + " has " +
                              e.what());
    }
}

RectTuple toTuple(const UTIL::Rect& r) {
    return {r.xmin, r.ymin, r.xmax, r.ymax};
}

UTIL::Rect dataWindow(const TaskPtr& task) {
    UTIL::Region region;
    py::gil_scoped_release release;
    task->getOutputDescription(nullptr, &region);
    return region.boundingBox();
}

RenderType queueOf(const std::string& name) {
    if (name == "batch") return RENDERTYPE_BATCH;
    if (name == "viewer") return RENDERTYPE_VIEWER;
    if (name == "background") return RENDERTYPE_BACKGROUND;
    throw py::value_error("queue '" + name + "': one of batch, viewer, background");
}

// Runs Python code for a waiting render, with the GIL: a Python error is
// kept for the caller and cancels the render.
template <class Body>
void callPython(Body&& body) {
    py::gil_scoped_acquire gil;
    try {
        body();
    } catch (py::error_already_set& e) {
        e.restore();
        throw RenderCancelledException("Render cancelled.");
    }
}

// Ctrl-C and the cancel event, between a render's Python callbacks (with the GIL).
void checkSignals() {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}
void checkCancel(const py::object& cancel) {
    if (!cancel.is_none() && cancel.attr("is_set")().cast<bool>())
        throw RenderCancelledException("Render cancelled.");
}

// Progress and cancellation for a render the calling thread waits for
// without the GIL: Ctrl-C, a callback that raises and a set cancel event
// all cancel it, and the Python error (if any) is kept for the caller.
RenderOptions pythonOptions(const py::object& progress, const py::object& cancel,
                            const std::string& queue) {
    RenderOptions options;
    options.type = queueOf(queue);
    options.progress = [progress, cancel](const RenderProgress& p) {
        callPython([&] {
            checkSignals();
            if (!progress.is_none()) progress(p.tilesDone, p.tilesTotal);
            checkCancel(cancel);
        });
    };
    return options;
}

// Runs a waiting render without the GIL; a Python error raised during it
// (KeyboardInterrupt, a callback's) is what the caller sees.
template <class Render>
auto withoutGil(Render&& render) {
    try {
        py::gil_scoped_release release;
        return render();
    } catch (const RenderCancelledException&) {
        if (PyErr_Occurred()) throw py::error_already_set();
        throw;
    }
}

py::array render(const TaskPtr& task, std::optional<RectTuple> rect, const std::string& channels,
                 const py::object& progress, const py::object& cancel, const std::string& queue) {
    if (!task) throw py::value_error("render: no task given");
    const UTIL::Rect r = rect ? UTIL::Rect(std::get<0>(*rect), std::get<1>(*rect),
                                           std::get<2>(*rect), std::get<3>(*rect))
                              : dataWindow(task);
    if (r.isNull())
        throw py::value_error("render: task " + task->getName() + ": the rectangle is empty");
    RenderOptions options = pythonOptions(progress, cancel, queue);
    RenderedImage image = withoutGil(
        [&, mask = renderMask(task, channels)] { return renderImage(task, r, mask, options); });
    // The pixels pass to numpy without a copy.
    auto* pixels = new std::vector<float>(std::move(image.pixels));
    py::capsule owner(pixels, [](void* p) { delete static_cast<std::vector<float>*>(p); });
    const auto c = py::ssize_t(IMGLIB::GetChannelCount(image.channels));
    return py::array_t<float>({py::ssize_t(r.height()), py::ssize_t(r.width()), c}, pixels->data(),
                              owner);
}

// The channels of an array named in its order ("R,G,B,forward.u"), and
// where each lies in the engine's order (that of their bits).
uint64_t namedChannels(const std::string& name, const std::string& channels,
                       std::vector<py::ssize_t>& enginePlace) {
    std::vector<uint64_t> bits;
    uint64_t mask = 0;
    for (size_t start = 0; start <= channels.size();) {
        size_t comma = channels.find(',', start);
        if (comma == std::string::npos) comma = channels.size();
        const std::string channel = channels.substr(start, comma - start);
        start = comma + 1;
        const uint64_t bit = channel.empty() ? 0 : IMGLIB::GetChannelForName(channel);
        if (!bit)
            throw py::value_error(
                name + ": channel '" + channel + "': " +
                (channel.empty() ? std::string("an empty name") : IMGLIB::GetErrorMessage()));
        if (mask & bit) throw py::value_error(name + ": channel '" + channel + "' given twice");
        mask |= bit;
        bits.push_back(bit);
    }
    enginePlace.clear();
    for (uint64_t bit : bits) enginePlace.push_back(IMGLIB::GetChannelIndex(mask, bit));
    return mask;
}

// Arrays made read-only by the tasks reading them, and how many tasks read
// each (guarded by the GIL). An array that was read-only already is left so.
std::map<PyObject*, int>& lockedArrays() {
    static auto* locked = new std::map<PyObject*, int>;
    return *locked;
}

void lockArray(const py::object& array) {
    auto found = lockedArrays().find(array.ptr());
    if (found != lockedArrays().end()) {
        ++found->second;
    } else if (array.attr("flags").attr("writeable").cast<bool>()) {
        array.attr("flags").attr("writeable") = false;
        lockedArrays()[array.ptr()] = 1;
    }
}

void unlockArray(const py::object& array) {
    auto found = lockedArrays().find(array.ptr());
    if (found == lockedArrays().end() || --found->second > 0) return;
    lockedArrays().erase(found);
    array.attr("flags").attr("writeable") = true;
}

// A task over the array's own memory, which it keeps alive: float32 with
// each pixel's channels side by side, in the engine's order, is read in
// place; anything else is converted once.
TaskPtr fromArray(const py::array& input, std::optional<std::string> channels,
                  std::pair<int64_t, int64_t> origin, const std::string& name) {
    auto a = py::array_t<float>::ensure(input);
    if (!a) throw py::value_error(name + ": not an array of numbers");
    if (a.ndim() == 2) a = a.reshape({a.shape(0), a.shape(1), py::ssize_t(1)});
    if (a.ndim() != 3)
        throw py::value_error(name + ": an array of height x width x channels is needed, got " +
                              std::to_string(a.ndim()) + " dimensions");
    const py::ssize_t count = a.shape(2);
    if (!channels) {
        if (count != 3 && count != 4)
            throw py::value_error(name + ": " + std::to_string(count) +
                                  " channels: say which (channels='A', 'RGBAZ', ...)");
        channels = count == 3 ? "RGB" : "RGBA";
    }
    std::vector<py::ssize_t> place;
    const uint64_t mask =
        namesChannels(*channels) ? namedChannels(name, *channels, place) : channelMask(*channels);
    if (IMGLIB::GetChannelCount(mask) != count)
        throw py::value_error(name + ": channels '" + *channels + "' for an array of " +
                              std::to_string(count) + " channels");
    if (!std::is_sorted(place.begin(), place.end())) {
        // Names whose bits run otherwise than the array: a copy in the
        // engine's order.
        py::array_t<float> ordered({a.shape(0), a.shape(1), count});
        auto from = a.unchecked<3>();
        auto to = ordered.mutable_unchecked<3>();
        for (py::ssize_t y = 0; y < a.shape(0); ++y)
            for (py::ssize_t x = 0; x < a.shape(1); ++x)
                for (py::ssize_t c = 0; c < count; ++c) to(y, x, place[size_t(c)]) = from(y, x, c);
        a = ordered;
    }
    if (a.strides(2) != 4 || a.strides(1) != 4 * count || a.strides(0) < a.shape(1) * 4 * count)
        a = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(a);
    IMGLIB::Image pixels;
    pixels.channels = mask;
    pixels.x1 = origin.first, pixels.y1 = origin.second;
    pixels.x2 = origin.first + a.shape(1), pixels.y2 = origin.second + a.shape(0);
    pixels.rowBytes = a.strides(0);
    pixels.pixelPtr = const_cast<float*>(a.data());
    // Released wherever the last tile lets go of it, with the GIL taken.
    // While tasks read the caller's own array it is read-only: an edit in
    // place would reach some tiles and not others already rendered and
    // kept, so it raises instead.
    auto* held = new py::object(a);
    lockArray(*held);
    std::shared_ptr<const void> owner(held, [](const void* p) {
        if (!Py_IsInitialized()) return;  // the interpreter is gone: nothing to release
        py::gil_scoped_acquire gil;
        const auto* array = static_cast<const py::object*>(p);
        unlockArray(*array);
        delete array;
    });
    return createMemoryImageTask(name, 0, pixels, std::move(owner));
}

TaskPtr createOperation(const std::string& operation, const std::string& node,
                        const std::string& paramsJson,
                        const std::map<std::string, std::optional<TaskPtr>>& inputs,
                        const std::string& baseDirectory, int frame) {
    std::map<std::string, TaskPtr> tasks;
    for (const auto& [name, task] : inputs)
        if (task && *task) tasks[name] = *task;
    return createOperationTask(operation, node, paramsJson, tasks, baseDirectory, frame);
}

std::vector<ParameterOverride> overridesOf(const std::map<std::string, std::string>& set) {
    std::vector<ParameterOverride> overrides;
    for (const auto& [key, value] : set)
        overrides.push_back(parseParameterOverride(key + "=" + value));
    return overrides;
}

Graph loadGraphPython(const std::string& path, const std::map<std::string, std::string>& set,
                      std::optional<int> frame) {
    return loadGraphFile(path, overridesOf(set), frame);
}

// A frame list given as text ("1-100x2") or as numbers.
std::vector<int> framesOf(const py::object& frames) {
    if (py::isinstance<py::str>(frames)) return parseFrames(frames.cast<std::string>());
    return frames.cast<std::vector<int>>();
}

// Renders a graph file's frames: {"rendered": [frames], "failed": {frame: message}}.
py::dict renderFrames(const std::string& path, const py::object& frameList,
                      const std::map<std::string, std::string>& set, const py::object& progress,
                      const py::object& onFrame, const py::object& cancel, const std::string& queue,
                      bool removeAbandonedFiles) {
    std::vector<int> frames = frameList.is_none() ? graphFileFrames(path) : framesOf(frameList);
    if (frames.empty())
        throw py::value_error("render_frames: " + path +
                              " declares no frames: give frames=\"1-100\" or a list");
    // Each frame's render polls for Ctrl-C, the cancel event and a raising
    // callback, as render does.
    SequenceOptions options;
    options.type = queueOf(queue);
    options.removeAbandonedFiles = removeAbandonedFiles;
    options.progress = [&](const SequenceProgress& p) {
        callPython([&] {
            checkSignals();
            if (!progress.is_none()) progress(p.frame, p.tiles.tilesDone, p.tiles.tilesTotal);
            checkCancel(cancel);
        });
    };
    py::list rendered;
    py::dict failed;
    options.frameDone = [&](int frame, const std::string& error) {
        callPython([&] {
            if (error.empty())
                rendered.append(frame);
            else
                failed[py::int_(frame)] = error;
            if (!onFrame.is_none())
                onFrame(frame, error.empty() ? py::object(py::none()) : py::str(error));
        });
    };
    withoutGil([&] { return writeGraphFrames(path, frames, overridesOf(set), options); });
    py::dict result;
    result["rendered"] = rendered;
    result["failed"] = failed;
    return result;
}

// Renders each task to its file in one render: (task, path, rect or None,
// channels) with the files' data type and compression.
void writeFiles(
    const std::vector<std::tuple<TaskPtr, std::string, std::optional<RectTuple>, std::string>>&
        outputs,
    const std::string& dataType, const std::string& compression, const py::object& progress,
    const py::object& cancel, const std::string& queue) {
    Graph graph;
    for (const auto& [task, path, rect, channels] : outputs) {
        if (!task) throw py::value_error("write: no task given for '" + path + "'");
        GraphOutput out;
        out.description.task = task;
        out.description.channels = renderMask(task, channels);
        if (rect) {
            out.description.rect = UTIL::Rect(std::get<0>(*rect), std::get<1>(*rect),
                                              std::get<2>(*rect), std::get<3>(*rect));
        } else {
            // The format, as a graph file's output takes it, else the data.
            py::gil_scoped_release release;
            const UTIL::Rect& format = task->getFormat();
            out.description.rect = format;
        }
        if (out.description.rect.isNull()) out.description.rect = dataWindow(task);
        FileOutParams file;
        file.path = path;
        file.dataType = dataType;
        file.compression = compression;
        out.files.push_back(file);
        graph.outputs.push_back(out);
    }
    RenderOptions options = pythonOptions(progress, cancel, queue);
    withoutGil([&] {
        writeGraphOutputs(graph, options);
        return 0;
    });
}

std::string statistics() {
    std::ostringstream xml;
    RenderManager::getStatistics()->write(xml);
    return xml.str();
}

}  // namespace

PYBIND11_MODULE(_tessera, m) {
    m.doc() = "Tessera's native module; use the tessera package.";
    m.attr("__version__") = TESSERA::version();
    bindViewRender(m);
    // Files are decoded and encoded on the render's threads, as in the
    // command; the image libraries start no pools of their own.
    useRenderThreadsForFiles();

    // Library errors keep their messages.
    auto error = py::register_exception<UTIL::ErrorException>(m, "Error", PyExc_RuntimeError);
    py::register_exception<GraphFileError>(m, "GraphFileError", error);
    py::register_exception<RenderTaskRenderingException>(m, "RenderError", error);
    py::register_exception<RenderCancelledException>(m, "Cancelled", error);
    py::register_exception<UTIL::OutOfMemoryException>(m, "OutOfMemory", error);

    // dynamic_attr: the package records on each task how it was built
    // (to_graph writes that as a graph file).
    py::class_<RenderTask, TaskPtr>(m, "Task", py::dynamic_attr(), "A node of an image graph.")
        .def_property_readonly("name", &RenderTask::getName)
        .def_property_readonly(
            "data_window", [](const TaskPtr& t) { return toTuple(dataWindow(t)); },
            "(x0, y0, x1, y1): the bounding box of the task's defined pixels")
        .def_property_readonly("channels",
                               [](const TaskPtr& t) {
                                   uint64_t channels = 0;
                                   py::gil_scoped_release release;
                                   t->getOutputDescription(&channels, nullptr);
                                   return IMGLIB::GetChannelMaskName(channels);
                               })
        .def_property_readonly(
            "format",
            [](const TaskPtr& t) {
                py::gil_scoped_release release;
                return toTuple(t->getFormat());
            },
            "(x0, y0, x1, y1): the frame the image is meant to fill (a file's display "
            "window), which its data window may overrun or fall short of")
        .def_property_readonly("cache_id", &RenderTask::getCacheID,
                               py::call_guard<py::gil_scoped_release>())
        .def("__repr__", [](const TaskPtr& t) { return "<tessera.Task '" + t->getName() + "'>"; });

    py::class_<OperationParameter>(m, "OperationParameter")
        .def_readonly("name", &OperationParameter::name)
        .def_readonly("type", &OperationParameter::type)
        .def_readonly("default", &OperationParameter::defaultValue)
        .def_readonly("description", &OperationParameter::description)
        .def_readonly("range", &OperationParameter::range)
        .def_readonly("low", &OperationParameter::low,
                      "the range's low end, for every number of the value")
        .def_readonly("high", &OperationParameter::high, "the range's high end")
        .def_readonly("choices", &OperationParameter::choices)
        .def_readonly("example", &OperationParameter::example);
    py::class_<OperationDescription>(m, "OperationDescription")
        .def_readonly("name", &OperationDescription::name)
        .def_readonly("family", &OperationDescription::family)
        .def_readonly("summary", &OperationDescription::summary)
        .def_readonly("reference", &OperationDescription::reference)
        .def_readonly("inputs", &OperationDescription::inputs)
        .def_readonly("optional_inputs", &OperationDescription::optionalInputs)
        .def_readonly("parameters", &OperationDescription::parameters)
        .def_readonly("aliases", &OperationDescription::aliases);
    m.def("list_operations", &listOperations, "Every operation a graph may use.");
    m.def("_create", &createOperation, py::arg("operation"), py::arg("node"), py::arg("params"),
          py::arg("inputs"), py::arg("base_directory") = ".", py::arg("frame") = 0);

    py::class_<FileOutParams>(m, "OutputFile")
        .def_readonly("path", &FileOutParams::path)
        .def_readonly("data_type", &FileOutParams::dataType)
        .def_readonly("compression", &FileOutParams::compression);
    py::class_<GraphOutput>(m, "GraphOutput")
        .def_property_readonly("task", [](const GraphOutput& o) { return o.description.task; })
        .def_property_readonly("rect",
                               [](const GraphOutput& o) { return toTuple(o.description.rect); })
        .def_property_readonly(
            "channels",
            [](const GraphOutput& o) { return IMGLIB::GetChannelMaskName(o.description.channels); })
        .def_readonly("files", &GraphOutput::files);
    py::class_<Graph>(m, "Graph")
        .def_readonly("outputs", &Graph::outputs)
        .def_readonly("frames", &Graph::frames, "the frames the file declares; [] for a still")
        .def_readonly("frame", &Graph::frame, "the frame the graph was loaded at")
        .def_readonly("animated", &Graph::animated,
                      "whether a value or a file path changes from frame to frame")
        .def_readonly("unnumbered_files", &Graph::unnumberedFiles,
                      "output files whose paths carry no frame number: one name for every frame")
        .def_property_readonly(
            "sequence_error",
            [](const Graph& g) -> py::object {
                if (g.unnumberedFiles.empty()) return py::none();
                return py::str(unnumberedFileMessage(g));
            },
            "why the graph cannot be written as a sequence of several frames, or None");
    m.def("load_graph", &loadGraphPython, py::arg("path"),
          py::arg("set") = std::map<std::string, std::string>(), py::arg("frame") = py::none(),
          "Reads a graph file at a frame (default: its first); set={'node.param': 'JSON value'} "
          "overrides parameters.");
    m.def("parse_frames", &parseFrames, py::arg("text"),
          "The frames of a list such as '1-100', '1-100x2', '5' or '1,4,9'.");
    m.def("graph_frames", &graphFileFrames, py::arg("path"),
          "The frames a graph file declares; [] for a still.");
    m.def("frame_path", &framePath, py::arg("path"), py::arg("frame"),
          "A numbered path ('a.####.exr', 'a.%04d.exr') at a frame.");
    m.def("render_frames", &renderFrames, py::arg("path"), py::arg("frames") = py::none(),
          py::arg("set") = std::map<std::string, std::string>(), py::arg("progress") = py::none(),
          py::arg("on_frame") = py::none(), py::arg("cancel") = py::none(),
          py::arg("queue") = "batch", py::arg("remove_abandoned_files") = false,
          "Writes a graph file's outputs at each frame (default: the frames it declares).\n"
          "progress(frame, tiles_done, tiles_total) runs while a frame renders, "
          "on_frame(frame, error) after each (error None when it was written). A frame that "
          "fails does not stop the others. Returns {'rendered': [frames], 'failed': {frame: "
          "message}}. Ctrl-C, a set cancel event or a raising callback stops the sequence.");
    m.def(
        "write_outputs",
        [](const Graph& graph, const py::object& progress, const py::object& cancel,
           const std::string& queue) {
            RenderOptions options = pythonOptions(progress, cancel, queue);
            withoutGil([&] {
                writeGraphOutputs(graph, options);
                return 0;
            });
        },
        py::arg("graph"), py::arg("progress") = py::none(), py::arg("cancel") = py::none(),
        py::arg("queue") = "batch", "Renders the graph's outputs to their files.");

    m.def("_write", &writeFiles, py::arg("outputs"), py::arg("data_type"), py::arg("compression"),
          py::arg("progress"), py::arg("cancel"), py::arg("queue"));

    m.def("from_array", &fromArray, py::arg("array"), py::arg("channels") = py::none(),
          py::arg("origin") = std::make_pair(int64_t(0), int64_t(0)), py::arg("name") = "array",
          "A numpy array (height x width x channels) as an image, read in place: not copied,\n"
          "and read-only while any task made from it lives. channels names its channels in\n"
          "order ('RGBA', 'R,G,B,forward.u'; default R, G, B, A for up to four); origin is\n"
          "the pixel (x, y) of its first element. Other dtypes and strides are converted.");
    m.def(
        "channel_names",
        [](const TaskPtr& task, const std::string& channels) {
            return IMGLIB::GetChannelNames(renderMask(task, channels));
        },
        py::arg("task"), py::arg("channels") = "all",
        "The names of the channels render(task, channels=...) gives, in the array's order.");
    m.def("render", &render, py::arg("task"), py::arg("rect") = py::none(),
          py::arg("channels") = "RGBA", py::arg("progress") = py::none(),
          py::arg("cancel") = py::none(), py::arg("queue") = "batch",
          "Renders task over rect (x0, y0, x1, y1; default its data window) and returns the\n"
          "pixels as float32, height x width x channels. channels: letters of R, G, B, A, Z\n"
          "('RGBA'), or names, layers and 'all' ('R,G,B,forward.u', 'diffuse.*'; see\n"
          "channel_names). progress(done, total) runs on this thread while it renders;\n"
          "cancel is a threading.Event. Ctrl-C, a set cancel or a raising progress cancel it\n"
          "(Cancelled, or the callback's error). queue: batch, viewer or background; a render\n"
          "waits for the one before it in its queue.");

    // Render settings and reports. Those that wait for running renders
    // release the GIL.
    const auto release = py::call_guard<py::gil_scoped_release>();
    m.def("set_threads", &RenderManager::setRenderThreads, py::arg("threads"), release,
          "Render threads, 1 to 1024 (default: one per CPU this process may use).");
    m.def("threads", &RenderManager::getRenderThreads, "The render threads renders use.");
    m.def(
        "set_tile_size",
        [](int64_t width, int64_t height) {
            if (width < 1 || height < 1)
                throw py::value_error("set_tile_size: " + std::to_string(width) + " x " +
                                      std::to_string(height) +
                                      ": tiles are at least 1 pixel a side");
            RenderManager::setGlobalTileSize(width, height);
        },
        py::arg("width"), py::arg("height"), release,
        "The size of the tiles renders cut images into (default 256 x 256).");
    m.def(
        "tile_size",
        [] {
            return std::make_pair(RenderManager::getGlobalTileWidth(),
                                  RenderManager::getGlobalTileHeight());
        },
        "(width, height) of the render tiles.");
    m.def("set_memory_limit", &RenderManager::SetMaxImageMemory, py::arg("megabytes"), release,
          "The image memory budget; beyond it tiles are swapped to disk.");
    m.def("set_disk_limit", &RenderManager::SetMaxDiskUsage, py::arg("megabytes"), release,
          "The swap files' budget; a render that needs more fails with OutOfMemory.");
    m.def("set_caching", &RenderManager::setSpeculativeCachingEnable, py::arg("enable"), release,
          "Whether finished tiles are kept for later renders (the tile cache; on by default).");
    m.def("clear_cache", &RenderManager::clearSpeculativeCache, release, "Empties the tile cache.");
    m.def("clear_task_cache", &RenderManager::ClearRenderTaskCache, release,
          "Forgets the tasks kept for merging identical sub-graphs.");
    m.def("statistics_xml", &statistics, release, "The render statistics, as XML text.");
    m.def("reset_statistics", &RenderManager::resetStatistics, release,
          "Starts the statistics' peaks and counts afresh.");
}
