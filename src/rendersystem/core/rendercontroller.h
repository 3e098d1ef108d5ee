// RenderController: runs one render (and one analysis render) of one
// RenderType at a time on the shared worker pool.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "imglib/image.h"
#include "outputtileprioritizer.h"
#include "renderdescription.h"
#include "renderobserver.h"
#include "rendersystem/core/renderplan.h"
#include "rendersystem/core/tilejob.h"
#include "util/threadpool.h"

namespace TESSERA {
namespace Private {

class RenderController;

// The shared state of one render, held by the controller and by every job
// of the render. `mutex` guards the plan (set up while the render is already
// visible to cancel) and the outputs (both released when it finishes), the
// ordering, the outcome and `finished`.
class ActiveRender : public ThreadSafeRefBase {
public:
    RenderController* controller = nullptr;
    RenderType type = RENDERTYPE_VIEWER;
    bool analysis = false;
    std::unique_ptr<RenderPlan> plan;
    std::vector<RenderDescription> outputs;
    RenderObserverPtr observer;
    std::vector<uint32_t> ordering;  // one value per final tile
    ReadyTiles ready;
    std::atomic<uint64_t> outstandingJobs{0};
    std::atomic<bool> cancelled{false};
    std::atomic<bool> failed{false};
    std::exception_ptr error;
    std::string errorMessage;
    bool finished = false;
    std::mutex mutex;
    std::condition_variable finishedSignal;

    bool stopping() const { return cancelled || failed; }
    // Tells the plan, so preRender and CheckAbort notice.
    void cancelTasks();
    void fail(std::exception_ptr e);
    // Schedules ready tiles (nothing once the render is stopping).
    void submit(const std::vector<TilePtr>& tiles);

    // The render whose work (a tile, an observer call) this thread is doing,
    // or null.
    static ActiveRender* current();
    class Scope {
    public:
        explicit Scope(ActiveRender* render);
        ~Scope();

    private:
        ActiveRender* m_previous;
    };
};

using ActiveRenderPtr = RCX_ptr_v4::ref_ptr<ActiveRender>;

// Event-driven: jobs schedule the tiles they make ready and the last job of
// a render finishes it; nothing polls. A caller that waits is woken by the
// render's end, and checks again at least every sleepMicroseconds().
//
// Waiting calls (cancel with wait, finishRender) made while the thread works
// for a render (in a tile, in an observer callback) do not wait: that render
// could only end after the call returned, and two renders waiting for each
// other from their callbacks would never end. A worker that waits (a
// blocking render started from a callback) lets the pool run other jobs in
// its place.
//
// m_mutex guards the active renders, the renders being finished and the
// analysis session; it is taken before a render's mutex, and never held
// while calling the pool or the observer.
class RenderController {
public:
    explicit RenderController(RenderType type) : m_type(type) {}

    static RenderController& get(RenderType type);
    static Util::ThreadPool& pool();
    // Sizes the pool: n render threads and one more for other work.
    static constexpr uint64_t kMaxRenderThreads = 1024;
    static void setRenderThreads(uint64_t n);  // throws above kMaxRenderThreads
    static uint64_t getRenderThreads();
    static uint64_t usableCpus();
    // From MARLIN_RENDER_CONTROLLER_SLEEP_USECS (above 0, below 1000000),
    // else 25000.
    static uint64_t sleepMicroseconds();

    // Sets up the render on the calling thread and schedules its ready
    // tiles. With wait, returns when it ended, rethrowing its error, or
    // RenderCancelledException when it was cancelled.
    // While it waits, `poll` (when given) runs on the calling thread at
    // least every sleepMicroseconds(); returning false, or throwing, cancels
    // the render, and what it threw is rethrown once the render ended.
    // With waitTurn, a render that finds the slot taken waits for it, in
    // the order such renders came (polling the while; cancelled, it throws
    // RenderCancelledException), instead of throwing "There is already a
    // render in progress"; from inside a render's own work it still throws.
    // An output with a destination (its index in `destinations`, pixels
    // given) has its tiles rendered in that memory where they lie wholly
    // inside it (see RenderPlan::destination); the observer still gets
    // every tile.
    void render(const std::vector<RenderDescription>& outputs, const RenderObserverPtr& observer,
                const OutputTilePrioritizerPtr& prioritizer, bool wait, bool analysis,
                const std::function<bool()>& poll = {}, bool waitTurn = false,
                const std::vector<IMGLIB::Image>& destinations = {});
    void reprioritize(const OutputTilePrioritizerPtr& prioritizer);
    // Queued tiles are dropped, running ones finish or notice (CheckAbort).
    void cancel(bool wait);
    // Waits until no render of this controller is running.
    void finishRender();
    bool isRenderInProgress() const;

    void startAnalysis();
    // False when no analysis is started.
    bool submitAnalysisJob(const Util::JobPtr& job);
    bool isAnalysisInProgress() const;
    // Stops taking jobs and waits for the submitted ones.
    void endAnalysis();

    // Called by the last job of a render.
    void finish(const ActiveRenderPtr& render);

private:
    void wait(const ActiveRenderPtr& render, const std::function<bool()>& poll);
    // Under m_mutex (`lock`): until the slot is free and this caller first
    // of those waiting.
    void waitForSlot(std::unique_lock<std::mutex>& lock, const std::function<bool()>& poll);
    void analysisJobDone();

    const RenderType m_type;
    mutable std::mutex m_mutex;
    std::condition_variable m_idle;
    ActiveRenderPtr m_render;
    ActiveRenderPtr m_analysisRender;
    int m_finishing = 0;             // renders whose observer is being told of their end
    std::deque<uint64_t> m_waiting;  // tickets of renders waiting their turn, first first
    uint64_t m_lastTicket = 0;
    bool m_analysisStarted = false;
    uint64_t m_analysisJobs = 0;
};

}  // namespace Private
}  // namespace TESSERA
