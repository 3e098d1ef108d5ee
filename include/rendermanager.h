/// @file
/// RenderManager: the process-wide render settings and reports.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "outputtileprioritizer.h"
#include "renderdescription.h"
#include "renderobserver.h"
#include "tessera_export.h"
#include "util/job.h"
#include "util/taskprofiler.h"
#include "xml/element.h"

namespace TESSERA {

/// A class of static functions: tile size, render threads, image memory and
/// disk budgets, speculative caching, statistics, debug logging and
/// per-thread cancellation.
class TESSERA_API RenderManager {
public:
    /// Asked by long operations whether the render they serve should stop.
    class TESSERA_API CancelChecker {
    public:
        virtual ~CancelChecker();
        /// True means "abort".
        virtual bool shouldAbort();
    };

    /// Renders the outputs on the worker threads, reporting tiles to the
    /// observer in the prioritizer's order (row-major when null). With wait,
    /// returns when the render ended: a failure is rethrown, a cancelled
    /// render throws RenderCancelledException. Without, returns once the
    /// render is set up. One render per RenderType at a time: a second throws
    /// "There is already a render in progress, cancel it first!".
    static void Render(const std::vector<RenderDescription>& outputs,
                       const RenderObserverPtr& observer,
                       const OutputTilePrioritizerPtr& prioritizer, bool wait, RenderType type);
    /// The same in the analysis slot of the RenderType (one at a time too).
    static void RenderAnalysis(const std::vector<RenderDescription>& outputs,
                               const RenderObserverPtr& observer,
                               const OutputTilePrioritizerPtr& prioritizer, bool wait,
                               RenderType type);
    /// A new output-tile order for the running render.
    static void reprioritize(const OutputTilePrioritizerPtr& prioritizer, RenderType type);
    /// Stops the renders of the type: queued tiles are dropped, running ones
    /// finish or notice (CheckAbort). With wait, returns when they ended.
    ///@{
    static void cancel(RenderType type, bool wait);
    static void finishRender(RenderType type);
    static bool isRenderInProgress(RenderType type);
    ///@}
    /// Jobs of the host's own run on the pool's spare thread between
    /// startAnalysis and endAnalysis (which waits for them).
    ///@{
    static void startAnalysis(RenderType type);
    static bool submitAnalysisJob(RenderType type, const Util::RcPtr<Util::Job>& job);
    static bool isAnalysisInProgress(RenderType type);
    static void endAnalysis(RenderType type);
    ///@}

    /// Waits for the viewer and batch renders first. Both sizes must be at
    /// least 1 ("xTileSize >0 && yTileSize > 0").
    ///@{
    static void setGlobalTileSize(int64_t xTileSize, int64_t yTileSize);
    static int64_t getGlobalTileWidth();   ///< default 256
    static int64_t getGlobalTileHeight();  ///< default 256
    ///@}

    /// Debug lines go to debugStream(): the render log (standard error unless
    /// setRenderLogFile named a file) while debugging is on, else nowhere.
    ///@{
    static void setRenderDebug(bool debug);
    static bool getRenderDebug();
    static void setRenderLogFile(const std::string& path);
    static std::ostream& debugStream();
    ///@}
    /// Writes one whole line to debugStream() under a lock, so lines written
    /// by render threads do not interleave.
    static void debugLine(const std::string& line);

    /// n is raised to at least 1; the pool gets n + 1 threads (one kept for
    /// analysis jobs). More than 1024 throws UTIL::ErrorException. Until it is called, renders
    /// use one thread per CPU the process may use (its affinity: taskset, a batch system's
    /// allocation), and getRenderThreads() says how many.
    ///@{
    static void setRenderThreads(uint64_t n);
    static uint64_t getRenderThreads();
    ///@}

    static void setSpeculativeCachingEnable(bool enable);  ///< on by default
    static bool getSpeculativeCachingEnable();             ///< whether finished tiles are kept
    static void clearSpeculativeCache();  ///< drops every kept tile (and its swap file)
    /// "ramCache" with one "cacheRecord" per cached tile image.
    static Orrery3::XmlIO::v1::ElementPtr GetSpeculativeCacheContents();

    /// "statistics" with the blocks "Render Manager", "Image Memory
    /// Management" and "Speculative Cache".
    ///@{
    static Orrery3::XmlIO::v1::ElementPtr getStatistics();
    static void resetStatistics();
    static void printImageMemoryUsage();
    ///@}

    /// The calling thread's CancelChecker's answer; false when it has none.
    /// Cheap: long loops may call it every row.
    static bool CheckAbort();
    /// Registers checker for the calling thread (null removes it). Render
    /// threads have one while they render a tile.
    static void SetCancelChecker(CancelChecker* checker);

    /// Forgets the tasks filed by cache ID for sharing equal sub-graphs.
    static void ClearRenderTaskCache();

    /// Budgets in megabytes (2^20 bytes).
    ///@{
    static void SetMaxImageMemory(uint64_t megabytes);
    static void SetMaxDiskUsage(uint64_t megabytes);
    static uint64_t GetMaxImageMemory();
    static int64_t GetMaxDiskUsage();
    ///@}

    /// Time spent in the render system's own stages, for the render log.
    static UTIL::TaskProfiler s_renderSystemProfiler;
};

}  // namespace TESSERA
