// A viewer render driven from an event loop. Finished tiles wait in a queue
// and a byte written to a pipe wakes the loop (which watches fileno()), so
// render threads never take the interpreter's lock: the session can be
// cancelled, restarted and reprioritized while tiles arrive.
#include "viewer.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include <pybind11/stl.h>

#include "refholder.h"
#include "tessera.h"

namespace py = pybind11;
using namespace TESSERA;

namespace {

// One delivered tile (RGBA floats over x, y, width, height) or the end of
// a render (`finished`).
struct ViewEvent {
    uint64_t render = 0;
    bool finished = false;
    int64_t x = 0, y = 0, width = 0, height = 0;
    std::string pixels;  // width x height RGBA floats; the status when finished
    std::string message;
    uint64_t rendered = 0;  // when finished: the tiles of every task rendered
};

// Shared by the session and the observers of its renders, which may
// outlive it by a moment. Lock: m_mutex guards m_events; nothing else is
// taken while it is held.
class EventQueue {
public:
    EventQueue() {
        if (::pipe2(m_pipe, O_NONBLOCK | O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "view: pipe");
    }
    ~EventQueue() {
        ::close(m_pipe[0]);
        ::close(m_pipe[1]);
    }
    int fileno() const { return m_pipe[0]; }
    // Renders that ended cancelled: counted as they end, before the call
    // that cancelled them returns.
    std::atomic<uint64_t> cancelled{0};
    void push(ViewEvent event) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_events.push_back(std::move(event));
        }
        const char wake = 1;
        // A full pipe already holds a wake-up the loop has yet to read.
        [[maybe_unused]] const ssize_t written = ::write(m_pipe[1], &wake, 1);
    }
    std::deque<ViewEvent> take() {
        char drain[256];
        while (::read(m_pipe[0], drain, sizeof drain) > 0) {
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        std::deque<ViewEvent> events;
        events.swap(m_events);
        return events;
    }

private:
    int m_pipe[2];
    std::mutex m_mutex;
    std::deque<ViewEvent> m_events;
};

const char* statusName(RenderStatus status) {
    switch (status) {
        case RenderStatus::Success:
            return "success";
        case RenderStatus::Error:
            return "error";
        case RenderStatus::Cancelled:
            return "cancelled";
    }
    return "error";
}

// The four channels a view shows, as the page's red, green, blue and alpha
// (a bit each; 0 where the page shows nothing there).
using ViewSlots = std::array<uint64_t, 4>;

// Copies each tile's part of the rendered rectangle as four floats a pixel,
// one for each slot (an empty slot is 0, or 1 for alpha).
class QueueObserver : public RenderObserver {
public:
    QueueObserver(std::shared_ptr<EventQueue> queue, uint64_t render, const UTIL::Rect& rect,
                  const ViewSlots& slots)
        : m_queue(std::move(queue)), m_render(render), m_rect(rect), m_slots(slots) {}

    void tileDone(const ImageBuffer& tile, const OutputTileID&) override {
        ImageBuffer buffer = tile;
        ImageBuffer_LockScoper lock(buffer);
        const IMGLIB::Image* image = buffer.getImage();
        const UTIL::Rect part =
            m_rect.intersection(UTIL::Rect(image->x1, image->y1, image->x2, image->y2));
        if (part.isNull()) return;
        ViewEvent event;
        event.render = m_render;
        event.x = part.xmin;
        event.y = part.ymin;
        event.width = part.width();
        event.height = part.height();
        event.pixels.resize(size_t(event.width * event.height * 16));
        int slot[4];
        for (int c = 0; c < 4; ++c)
            slot[c] = m_slots[c] ? IMGLIB::GetChannelIndex(image->channels, m_slots[c]) : -1;
        const int64_t pixelBytes = IMGLIB::GetPixelBytes(image->channels);
        auto* out = reinterpret_cast<float*>(event.pixels.data());
        for (int64_t y = part.ymin; y < part.ymax; ++y) {
            const float* in = IMGLIB::GetPixelAddress(image, part.xmin, y, pixelBytes);
            for (int64_t x = 0; x < event.width; ++x, in += pixelBytes / 4, out += 4)
                for (int c = 0; c < 4; ++c)
                    out[c] = slot[c] >= 0 ? in[slot[c]] : (c == 3 ? 1.0f : 0.0f);
        }
        m_queue->push(std::move(event));
    }
    // Tiles taken from the cache report no time: they are not counted.
    void internalTileDone(const std::string&, const std::string&, double seconds) override {
        if (seconds > 0) m_rendered.fetch_add(1, std::memory_order_relaxed);
    }
    void renderFinished(RenderStatus status, const std::string& message) override {
        if (status == RenderStatus::Cancelled)
            m_queue->cancelled.fetch_add(1, std::memory_order_relaxed);
        ViewEvent event;
        event.render = m_render;
        event.finished = true;
        event.rendered = m_rendered.load(std::memory_order_relaxed);
        event.pixels = statusName(status);
        event.message = message;
        m_queue->push(std::move(event));
    }

private:
    const std::shared_ptr<EventQueue> m_queue;
    const uint64_t m_render;
    const UTIL::Rect m_rect;
    const ViewSlots m_slots;
    std::atomic<uint64_t> m_rendered{0};
};

class ViewRender {
public:
    ViewRender() : m_queue(std::make_shared<EventQueue>()) {}
    ~ViewRender() { RenderManager::cancel(RENDERTYPE_VIEWER, true); }

    int fileno() const { return m_queue->fileno(); }
    uint64_t cancelled() const { return m_queue->cancelled.load(std::memory_order_relaxed); }

    // Renders rect of task, the tiles nearest (x, y) first, cancelling the
    // viewer render before it; returns the new render's number. `shown`
    // names the channel shown as red, green, blue and alpha ("" for none);
    // empty: R, G, B, A.
    uint64_t start(const TaskPtr& task, const std::tuple<int64_t, int64_t, int64_t, int64_t>& r,
                   double x, double y, const std::vector<std::string>& shown) {
        if (!task) throw py::value_error("view: no task given");
        const UTIL::Rect rect(std::get<0>(r), std::get<1>(r), std::get<2>(r), std::get<3>(r));
        if (rect.isNull()) throw py::value_error("view: the rectangle is empty");
        if (shown.size() > 4) throw py::value_error("view: at most four channels are shown");
        ViewSlots slots{};
        for (size_t c = 0; c < 4; ++c) {
            if (shown.empty())
                slots[c] = uint64_t(1) << c;
            else if (c < shown.size() && !shown[c].empty()) {
                slots[c] = IMGLIB::FindChannel(shown[c]);
                if (!slots[c])
                    throw py::value_error("view: no channel is named '" + shown[c] + "'");
            }
        }
        const uint64_t number = ++m_renders;
        py::gil_scoped_release release;
        RenderManager::cancel(RENDERTYPE_VIEWER, true);
        uint64_t defined = 0;
        task->getOutputDescription(&defined, nullptr);
        uint64_t channels = 0;
        for (uint64_t bit : slots) channels |= bit & defined;
        // A view of channels the output lacks shows black: it still renders
        // the rectangle so that every tile arrives.
        if (!channels)
            channels = defined & IMGLIB::CHANNELS_RGBA ? defined & IMGLIB::CHANNELS_RGBA
                                                       : IMGLIB::CHANNELS_RGBA;
        RenderManager::Render({RenderDescription(task, rect, channels)},
                              RenderObserverPtr(new QueueObserver(m_queue, number, rect, slots)),
                              OutputTilePrioritizerPtr(new CenterOutTilePrioritizer(x, y)), false,
                              RENDERTYPE_VIEWER);
        return number;
    }
    void reprioritize(double x, double y) {
        py::gil_scoped_release release;
        RenderManager::reprioritize(OutputTilePrioritizerPtr(new CenterOutTilePrioritizer(x, y)),
                                    RENDERTYPE_VIEWER);
    }
    void cancel() {
        py::gil_scoped_release release;
        RenderManager::cancel(RENDERTYPE_VIEWER, true);
    }
    // What arrived since the last call: ("tile", render, x, y, width, height,
    // RGBA float bytes) and ("finished", render, status, message, tiles
    // rendered).
    py::list take() {
        std::deque<ViewEvent> events;
        {
            py::gil_scoped_release release;
            events = m_queue->take();
        }
        py::list out;
        for (ViewEvent& e : events) {
            if (e.finished)
                out.append(py::make_tuple("finished", e.render, e.pixels, e.message, e.rendered));
            else
                out.append(py::make_tuple("tile", e.render, e.x, e.y, e.width, e.height,
                                          py::bytes(e.pixels)));
        }
        return out;
    }

private:
    std::shared_ptr<EventQueue> m_queue;
    uint64_t m_renders = 0;
};

}  // namespace

void bindViewRender(py::module_& m) {
    py::class_<ViewRender>(m, "ViewRender",
                           "A viewer render for an event loop: watch fileno(), then take().")
        .def(py::init<>())
        .def("fileno", &ViewRender::fileno, "Readable when events wait.")
        .def_property_readonly("cancelled", &ViewRender::cancelled,
                               "How many of its renders ended cancelled.")
        .def("start", &ViewRender::start, py::arg("task"), py::arg("rect"), py::arg("x"),
             py::arg("y"), py::arg("shown") = std::vector<std::string>(),
             "Renders rect, nearest (x, y) first, the channels named in shown (four "
             "slots: red, green, blue, alpha; \"\" for none); returns the render's number.")
        .def("reprioritize", &ViewRender::reprioritize, py::arg("x"), py::arg("y"),
             "Nearest (x, y) first from now on.")
        .def("cancel", &ViewRender::cancel, "Stops the render, waiting for it to end.")
        .def("take", &ViewRender::take, "The tiles and ends that arrived since the last call.");
}
