#include "rendersystem/core/rendercontroller.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <thread>

#include "exceptions.h"
#include "imglib/channels.h"
#include "rendermanager.h"
#include "util/exceptions.h"

namespace TESSERA {
namespace Private {
namespace {

constexpr uint64_t kDefaultSleepMicroseconds = 25000;

uint64_t readSleepMicroseconds() {
    const char* text = std::getenv("MARLIN_RENDER_CONTROLLER_SLEEP_USECS");
    if (!text) return kDefaultSleepMicroseconds;
    char* end = nullptr;
    const long long value = std::strtoll(text, &end, 10);
    if (end == text || *end != '\0' || value <= 0 || value >= 1000000) {
        std::cerr << "MARLIN_RENDER_CONTROLLER_SLEEP_USECS=" << text
                  << " ignored: it must be above 0 and below 1000000; using "
                  << kDefaultSleepMicroseconds << std::endl;
        return kDefaultSleepMicroseconds;
    }
    std::cout << "Render Controller sleep usecs: " << value << std::endl;
    return static_cast<uint64_t>(value);
}

// Guards s_pool's creation and s_renderThreads. Never held while the pool
// is asked for anything: the pool's own lock comes after it.
std::mutex s_poolMutex;
std::atomic<Util::ThreadPool*> s_pool{nullptr};
uint64_t s_renderThreads = 0;

thread_local ActiveRender* t_currentRender = nullptr;

// What CheckAbort answers on a worker while it renders a tile.
class RenderCancelChecker : public RenderManager::CancelChecker {
public:
    explicit RenderCancelChecker(const ActiveRender& render) : m_render(render) {}
    bool shouldAbort() override { return m_render.stopping(); }

private:
    const ActiveRender& m_render;
};

class ControllerTileJob : public Util::Job {
public:
    ControllerTileJob(ActiveRenderPtr render, TilePtr tile)
        : m_render(std::move(render)), m_tile(std::move(tile)) {}

    // Viewer tiles first, then batch, then background; within a render, the
    // prioritizer's order of final tiles; among the tiles a final tile
    // needs, the graph's depth-first order. A consumer then renders as soon
    // as its inputs are done, before the next sub-graph starts, and their
    // tiles are freed: memory follows the graph's depth, not its width.
    uint64_t getPriority() const override {
        std::lock_guard<std::mutex> lock(m_render->mutex);
        const uint64_t node = std::min<uint64_t>(m_tile->getTask()->m_depthFirstOrder, kNodeMask);
        return (uint64_t(m_render->type) << 58) |
               (uint64_t(m_tile->getPriority(m_render->ordering)) << 24) | node;
    }
    static constexpr uint64_t kNodeMask = (uint64_t(1) << 24) - 1;

    void run() override {
        ActiveRender& render = *m_render;
        ActiveRender::Scope working(m_render.get());
        if (!render.stopping()) {
            RenderCancelChecker checker(render);
            RenderManager::SetCancelChecker(&checker);
            try {
                TileJob(m_tile, render.observer, &render.ready, 0).run();
            } catch (const RenderCancelledException&) {
                render.cancelled = true;
            } catch (...) {
                render.fail(std::current_exception());
            }
            RenderManager::SetCancelChecker(nullptr);
        }
        render.submit(render.ready.take());
        m_tile.reset();
        if (--render.outstandingJobs == 0) render.controller->finish(m_render);
    }

private:
    ActiveRenderPtr m_render;
    TilePtr m_tile;
};

class AnalysisJob : public Util::Job {
public:
    AnalysisJob(Util::JobPtr job, RenderController* controller, void (RenderController::*done)())
        : m_job(std::move(job)), m_controller(controller), m_done(done) {}
    void run() override {
        try {
            m_job->run();
        } catch (const std::exception& e) {
            std::cerr << "Analysis job failed: " << e.what() << std::endl;
        }
        m_job.reset();
        (m_controller->*m_done)();
    }

private:
    Util::JobPtr m_job;
    RenderController* m_controller;
    void (RenderController::*m_done)();
};

std::string messageOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace

void ActiveRender::fail(std::exception_ptr e) {
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (failed) return;  // the first error is the render's
        error = e;
        errorMessage = messageOf(e);
    }
    failed = true;
    cancelTasks();
}

void ActiveRender::cancelTasks() {
    std::lock_guard<std::mutex> lock(mutex);
    if (plan) plan->cancel();
}

ActiveRender* ActiveRender::current() {
    return t_currentRender;
}

ActiveRender::Scope::Scope(ActiveRender* render) : m_previous(t_currentRender) {
    t_currentRender = render;
}

ActiveRender::Scope::~Scope() {
    t_currentRender = m_previous;
}

void ActiveRender::submit(const std::vector<TilePtr>& tiles) {
    if (stopping() || tiles.empty()) return;
    std::vector<Util::JobPtr> jobs;
    for (const TilePtr& tile : tiles)
        jobs.push_back(Util::JobPtr(new ControllerTileJob(this, tile)));
    outstandingJobs += jobs.size();
    RenderController::pool().submit(jobs, true);
}

RenderController& RenderController::get(RenderType type) {
    // Created together on first use, never destroyed (jobs may still refer
    // to them while the process exits).
    static RenderController* controllers[RENDERTYPE_COUNT] = {
        new RenderController(RENDERTYPE_VIEWER), new RenderController(RENDERTYPE_BATCH),
        new RenderController(RENDERTYPE_BACKGROUND)};
    const int index = type >= 0 && type < RENDERTYPE_COUNT ? type : 0;
    return *controllers[index];
}

Util::ThreadPool& RenderController::pool() {
    if (Util::ThreadPool* pool = s_pool.load()) return *pool;
    std::lock_guard<std::mutex> lock(s_poolMutex);
    if (!s_pool.load()) {
        const uint64_t n = s_renderThreads ? s_renderThreads : usableCpus();
        s_pool = new Util::ThreadPool(n + 1, n);
    }
    return *s_pool.load();
}

void RenderController::setRenderThreads(uint64_t n) {
    n = std::max<uint64_t>(n, 1);
    // More would exhaust the process's threads before it helped.
    if (n > kMaxRenderThreads)
        throw UTIL::ErrorException("setRenderThreads: " + std::to_string(n) +
                                   " threads is more than " + std::to_string(kMaxRenderThreads));
    {
        std::lock_guard<std::mutex> lock(s_poolMutex);
        s_renderThreads = n;
    }
    // Resizing waits for no job, so it may be called from one.
    pool().resize(n + 1, n);
}

uint64_t RenderController::getRenderThreads() {
    std::lock_guard<std::mutex> lock(s_poolMutex);
    return s_renderThreads ? s_renderThreads : usableCpus();
}

// Before any setRenderThreads, one render thread per CPU the process may
// use: its affinity (taskset, a batch system's cgroup), not the machine's.
uint64_t RenderController::usableCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0)
        return uint64_t(CPU_COUNT(&set));
    return std::max(1u, std::thread::hardware_concurrency());
}

uint64_t RenderController::sleepMicroseconds() {
    static const uint64_t usecs = readSleepMicroseconds();
    return usecs;
}

void RenderController::render(const std::vector<RenderDescription>& outputs,
                              const RenderObserverPtr& observer,
                              const OutputTilePrioritizerPtr& prioritizer, bool wait, bool analysis,
                              const std::function<bool()>& poll, bool waitTurn,
                              const std::vector<IMGLIB::Image>& destinations) {
    if (!observer) throw UTIL::ErrorException("Render: no RenderObserver given");
    ActiveRenderPtr render(new ActiveRender);
    render->controller = this;
    render->type = m_type;
    render->analysis = analysis;
    render->outputs = outputs;
    render->observer = observer;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ActiveRenderPtr& slot = analysis ? m_analysisRender : m_render;
        // From inside a render's own work, waiting for the slot would wait
        // for that render: refused, as a render that does not wait is.
        if (waitTurn && !analysis && !ActiveRender::current() && (slot || !m_waiting.empty()))
            waitForSlot(lock, poll);
        if (slot)
            throw UTIL::ErrorException(
                analysis ? "There is already an analysis render in progress, cancel it first!"
                         : "There is already a render in progress, cancel it first!");
        slot = render;
    }
    try {
        std::vector<RenderOutput> renderOutputs;
        for (size_t i = 0; i < outputs.size(); ++i) {
            if (!outputs[i].task)
                throw UTIL::ErrorException("Render: output " + std::to_string(i) + " has no task");
            if (IMGLIB::ValidateChannelMask(outputs[i].channels) == 0)
                throw UTIL::ErrorException("Render: output " + std::to_string(i) + " (task " +
                                           outputs[i].task->getName() + ") asks for no channels");
            renderOutputs.push_back(
                RenderOutput{outputs[i].task, outputs[i].rect, outputs[i].channels, i});
        }
        std::unique_ptr<RenderPlan> plan = RenderPlan::setUp(renderOutputs, destinations);
        {
            std::lock_guard<std::mutex> lock(render->mutex);
            render->plan = std::move(plan);
        }
        std::vector<OutputTileID> finalTiles;
        for (const TilePtr& tile : render->plan->finalTiles)
            finalTiles.push_back(OutputTileID{tile->getOutputIndex(), tile->getTileID()});
        OutputTilePrioritizerPtr order =
            prioritizer ? prioritizer : OutputTilePrioritizerPtr(new RowMajorTilePrioritizer);
        render->ordering = order->prioritize(finalTiles, outputs);
        if (render->ordering.size() != finalTiles.size())
            throw UTIL::ErrorException("OutputTilePrioritizer gave " +
                                       std::to_string(render->ordering.size()) + " values for " +
                                       std::to_string(finalTiles.size()) + " output tiles");
    } catch (...) {
        {
            std::lock_guard<std::mutex> lock(render->mutex);
            if (render->plan) render->plan->end();
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        (analysis ? m_analysisRender : m_render).reset();
        m_idle.notify_all();
        throw;
    }
    // Outputs with no tiles at all are finished before anything runs.
    {
        ActiveRender::Scope working(render.get());
        for (size_t i = 0; i < outputs.size(); ++i)
            if (render->plan->outputTileCount(i) == 0) observer->outputFinished(i);
    }
    // A cancel that came during set-up found no tasks to tell.
    if (render->cancelled) render->cancelTasks();
    // One extra count keeps the render open while its first tiles are queued.
    ++render->outstandingJobs;
    // The jobs hold the first tiles from now on, so a tile's image goes as
    // soon as its readers are done (a tile still in its task's map when the
    // render ends is released with the map).
    {
        std::vector<TilePtr> first;
        first.swap(render->plan->readyTiles);
        render->submit(first);
    }
    if (--render->outstandingJobs == 0) finish(render);
    if (wait) this->wait(render, poll);
}

void RenderController::wait(const ActiveRenderPtr& render, const std::function<bool()>& poll) {
    const auto step = std::chrono::microseconds(sleepMicroseconds());
    Util::ThreadPool::Blocking blocking;
    std::exception_ptr error, pollError;
    {
        std::unique_lock<std::mutex> lock(render->mutex);
        while (!render->finished) {
            render->finishedSignal.wait_for(lock, step);
            if (!poll || render->finished || render->cancelled) continue;
            // Polled without the render's mutex: the hook may call anything.
            lock.unlock();
            bool go = false;
            try {
                go = poll();
            } catch (...) {
                pollError = std::current_exception();
            }
            if (!go) {
                render->cancelled = true;
                render->cancelTasks();
            }
            lock.lock();
        }
        // The waiter takes the error: the exception it rethrows is then
        // never released by the worker that drops the render last.
        error.swap(render->error);
    }
    if (pollError) std::rethrow_exception(pollError);
    if (error) std::rethrow_exception(error);
    if (render->cancelled) throw RenderCancelledException("Render cancelled.");
}

void RenderController::finish(const ActiveRenderPtr& render) {
    std::string incomplete;
    {
        std::lock_guard<std::mutex> lock(render->mutex);
        incomplete = render->plan->undeliveredOutputs();
        render->plan->end();
    }
    // Success means every tile of every output reached the observer.
    if (!render->stopping() && !incomplete.empty()) {
        std::lock_guard<std::mutex> lock(render->mutex);
        render->errorMessage = "Render incomplete: " + incomplete;
        render->error = std::make_exception_ptr(UTIL::ErrorException(render->errorMessage));
        render->failed = true;
    }
    const RenderStatus status = render->failed      ? RenderStatus::Error
                                : render->cancelled ? RenderStatus::Cancelled
                                                    : RenderStatus::Success;
    {
        // The slot frees before the observer hears of the end (it may start
        // the next render from renderFinished); waiters wait for both.
        std::lock_guard<std::mutex> lock(m_mutex);
        ActiveRenderPtr& slot = render->analysis ? m_analysisRender : m_render;
        if (slot == render) slot.reset();
        ++m_finishing;
    }
    RenderObserverPtr observer;
    {
        // This job may outlive the wake-up below: what the render holds for
        // the host (the observer, and so any tiles it kept) goes now.
        std::lock_guard<std::mutex> lock(render->mutex);
        observer.swap(render->observer);
    }
    try {
        ActiveRender::Scope working(render.get());
        observer->renderFinished(status, status == RenderStatus::Cancelled
                                             ? std::string("Render cancelled.")
                                             : render->errorMessage);
    } catch (const std::exception& e) {
        std::cerr << "RenderObserver::renderFinished threw: " << e.what() << std::endl;
    }
    observer.reset();
    // Likewise the tasks the render holds (its outputs and its plan): a host
    // that drops its graph after the render sees every task go.
    std::unique_ptr<RenderPlan> plan;
    std::vector<RenderDescription> outputs;
    {
        std::lock_guard<std::mutex> lock(render->mutex);
        plan.swap(render->plan);
        outputs.swap(render->outputs);
    }
    plan.reset();
    outputs.clear();
    {
        std::lock_guard<std::mutex> lock(render->mutex);
        render->finished = true;
    }
    render->finishedSignal.notify_all();
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_finishing;
    m_idle.notify_all();
}

void RenderController::reprioritize(const OutputTilePrioritizerPtr& prioritizer) {
    ActiveRenderPtr render;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        render = m_render;
    }
    if (!render || !prioritizer) return;
    std::vector<OutputTileID> finalTiles;
    std::vector<RenderDescription> outputs;
    {
        std::lock_guard<std::mutex> lock(render->mutex);
        if (!render->plan) return;
        for (const TilePtr& tile : render->plan->finalTiles)
            finalTiles.push_back(OutputTileID{tile->getOutputIndex(), tile->getTileID()});
        outputs = render->outputs;
    }
    std::vector<uint32_t> ordering = prioritizer->prioritize(finalTiles, outputs);
    if (ordering.size() != finalTiles.size()) return;
    {
        std::lock_guard<std::mutex> lock(render->mutex);
        render->ordering = std::move(ordering);
    }
    pool().reprioritize();
}

void RenderController::waitForSlot(std::unique_lock<std::mutex>& lock,
                                   const std::function<bool()>& poll) {
    const uint64_t ticket = ++m_lastTicket;
    m_waiting.push_back(ticket);
    const auto leave = [&] {
        m_waiting.erase(std::find(m_waiting.begin(), m_waiting.end(), ticket));
        m_idle.notify_all();
    };
    while (m_render || m_waiting.front() != ticket) {
        m_idle.wait_for(lock, std::chrono::milliseconds(25));
        if (!poll) continue;
        // The caller's progress and cancellation, outside the lock.
        lock.unlock();
        bool go = false;
        try {
            go = poll();
        } catch (...) {
            lock.lock();
            leave();
            throw;
        }
        lock.lock();
        if (!go) {
            leave();
            throw RenderCancelledException("Render cancelled.");
        }
    }
    leave();
}

void RenderController::cancel(bool wait) {
    std::vector<ActiveRenderPtr> renders;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const ActiveRenderPtr& r : {m_render, m_analysisRender})
            if (r) renders.push_back(r);
    }
    for (const ActiveRenderPtr& render : renders) {
        render->cancelled = true;
        render->cancelTasks();
    }
    if (wait) finishRender();
}

void RenderController::finishRender() {
    // From inside a render's work nothing is waited for (see the class).
    if (ActiveRender::current()) return;
    const auto step = std::chrono::microseconds(sleepMicroseconds());
    Util::ThreadPool::Blocking blocking;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (m_render || m_analysisRender || m_finishing > 0) m_idle.wait_for(lock, step);
}

bool RenderController::isRenderInProgress() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<bool>(m_render);
}

void RenderController::startAnalysis() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_analysisStarted = true;
}

bool RenderController::submitAnalysisJob(const Util::JobPtr& job) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_analysisStarted || !job) return false;
        ++m_analysisJobs;
    }
    pool().submit(Util::JobPtr(new AnalysisJob(job, this, &RenderController::analysisJobDone)),
                  false);
    return true;
}

void RenderController::analysisJobDone() {
    std::lock_guard<std::mutex> lock(m_mutex);
    --m_analysisJobs;
    m_idle.notify_all();
}

bool RenderController::isAnalysisInProgress() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_analysisStarted || m_analysisJobs > 0 || m_analysisRender;
}

void RenderController::endAnalysis() {
    const auto step = std::chrono::microseconds(sleepMicroseconds());
    Util::ThreadPool::Blocking blocking;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_analysisStarted = false;
    while (m_analysisJobs > 0) m_idle.wait_for(lock, step);
}

}  // namespace Private
}  // namespace TESSERA
