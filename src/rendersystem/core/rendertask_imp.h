// RenderTask::Imp: carries one task through the graph walks of a render.
#pragma once

#include <Imath/ImathColor.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "private/tile.h"
#include "rendertask.h"
#include "util/region.h"

namespace TESSERA {
namespace Private {
class InputRequest;
}

// One output of a render: the task, the area and channels wanted of it.
struct RenderOutput {
    TaskPtr task;
    UTIL::Rect rect;
    uint64_t channels = 0;
    size_t outputIndex = 0;
};

// What render set-up hands the controller.
struct RenderPlan {
    std::vector<TaskPtr> tasks;                // every task of the graph
    std::vector<Private::TilePtr> readyTiles;  // can render now
    std::vector<Private::TilePtr> finalTiles;  // index = the tile's final-tile bit
    uint64_t tileCount = 0;
};

enum RenderStage : int {
    RENDERSTAGE_Init = 0,                       // inputs may be registered
    RENDERSTAGE_ComputeOutputDescription = 1,   // inputs' descriptions may be read
    RENDERSTAGE_ReadyToSetUpInputRequests = 2,  // every consumer has asked its tiles
    RENDERSTAGE_InputRequestsSetUp = 4,         // tiles may be rendered
};

// The task's inputs, its output description (defined channels and data
// region, background colour, cache ID) and the requests made of it. The
// description is computed once, on first demand, inputs first; from then on
// the task takes no further inputs.
//
// m_descriptionMutex serialises computing the description; it is taken on a
// task before its inputs', so a walk down the acyclic graph never waits in a
// circle. Everything the description sets is read-only afterwards.
class RenderTask::Imp {
public:
    Imp(RenderTask* parentTask, const std::string& name, float time);
    ~Imp();

    RenderTask& task() const { return *m_parentTask; }

    size_t registerInputTask(TaskPtr inputTask);
    void addInputRequest(size_t inputID, uint64_t channels, IMGLIB::ExtendMethod method,
                         bool extendWithOverscan, const UTIL::Rect& inputDisplayRect);
    TaskPtr getInputTask(size_t inputID) const;
    // Points an input slot at another task (chain collapse at render set-up).
    void replaceInput(size_t inputID, const TaskPtr& input);
    size_t getInputTaskCount() const { return m_inputTasks.size(); }

    // Computes the output description of the inputs and then of this task,
    // unless that was done already.
    void ensureOutputDescription();

    Imp& inputImp(size_t inputID);  // asserts the input's description is readable
    uint64_t getDefinedInputChannels(size_t inputID) {
        return inputImp(inputID).m_definedOutputChannels;
    }
    const UTIL::Region& getDefinedInputDataRegion(size_t inputID) {
        return inputImp(inputID).m_definedOutputDataRegion;
    }
    const Imath::Color4<float>& getInputBackgroundColor(size_t inputID) {
        return inputImp(inputID).m_backgroundColor;
    }
    const std::string& getInputCacheID(size_t inputID) {
        return inputImp(inputID).m_compressedCacheID;
    }
    uint64_t getRequiredInputChannels(int64_t whichInput) const;
    const Private::InputRequest* getInputRequest(size_t inputID) const;

    // ---- Rendering ----
    // Counts consumers, collapses in-place chains, describes the outputs,
    // creates their tiles and sets up every task's requests, outputs first.
    static RenderPlan setUpRender(const std::vector<RenderOutput>& outputs);
    // Cuts the links of every tile of the render, empties the tile maps and
    // the plan's tile lists.
    static void endRender(RenderPlan& plan);
    Private::TilePtr getOrCreateTile(const TileID& id);
    void removeTile(const TileID& id);
    size_t getTileMapSize();
    // Renders one tile into output (the tile's locked image): preRender once,
    // input images, the task's render over the defined part of the tile.
    // True when this was the task's last tile.
    bool renderTile(Private::Tile& tile, const IMGLIB::Image* output);
    // Counts a tile that needed no rendering; true when it was the last.
    bool lastTileCheck();
    void cancel() { m_cancelled = true; }
    // The speculative-cache priority of a tile that took `seconds`: the time
    // a later render saves.
    float getCachePriority(double seconds) const { return static_cast<float>(seconds); }

    // ---- Caching settings and cache identity ----
    void ignoreInputCacheID(size_t inputID);
    void setSampleRate(float x, float y);
    float getSampleRateX() const;
    float getSampleRateY() const;
    // 1 - prod(1 - p_i) over the outputs i of the render that need this task.
    void setNeededByOutputs(const std::vector<bool>& outputs);
    void computeProbabilityIsNeeded(const std::vector<float>& outputProbabilities);
    // "$" and 32 letters from the 128-bit digest of the full cache ID.
    static std::string compressCacheID(const std::string& fullCacheID);

    RenderTask* m_parentTask;
    std::string m_name;
    std::string m_nameAtTime;
    float m_time;
    RenderStage m_renderStage = RENDERSTAGE_Init;
    std::vector<TaskPtr> m_inputTasks;
    std::vector<std::unique_ptr<Private::InputRequest>> m_inputRequests;
    std::vector<size_t> m_ignoredInputCacheIDs;
    uint64_t m_outputTaskCount = 0;
    uint64_t m_consumersDoneCount = 0;

    uint64_t m_definedOutputChannels = 0;
    UTIL::Region m_definedOutputDataRegion;
    uint64_t m_requiredOutputChannels = 0;
    Imath::Color4<float> m_backgroundColor{0, 0, 0, 0};
    std::string m_typeString;
    std::string m_cacheID;
    std::string m_compressedCacheID;
    std::string m_parameterCacheID;

    bool m_caching = true;
    bool m_diskCacheEnabled = true;
    bool m_sampleRateIsSet = false;
    float m_sampleRateX = 1.0f;
    float m_sampleRateY = 1.0f;
    float m_probabilityBeingEdited = 0.0f;
    float m_probabilityIsNeeded = 1.0f;
    std::vector<bool> m_neededByOutputs;  // one bit per output of the render
    int64_t m_finalRenderTaskID = 0;

    std::mutex m_renderLock;                       // guards preRender and the last-tile check
    std::map<TileID, Private::TilePtr> m_tileMap;  // guarded by m_tileMapMutex
    std::mutex m_tileMapMutex;
    uint64_t m_tileCount = 0;
    uint64_t m_tilesLeft = 0;                   // guarded by m_renderLock
    std::atomic<uint64_t> m_deliveriesLeft{0};  // final tiles not yet handed to the observer
    int m_preRenderState = 0;  // 0 not run, 1 done, 2 failed; guarded by m_renderLock
    std::atomic<bool> m_cancelled{false};
    std::atomic<bool> m_inRender{false};  // part of a render that has not ended

private:
    void resetForRender(int64_t renderID);
    static void setUpPlan(const std::vector<RenderOutput>& outputs, RenderPlan& plan);
    uint64_t setUpTask(std::vector<Private::TilePtr>& readyTiles);
    void setUpTile(const Private::TilePtr& tile);
    void runPreRender();
    void computeOwnOutputDescription();
    // Type string, parameters, then the compressed IDs of the inputs that
    // are not ignored, each followed by ",". Sets m_parameterCacheID.
    std::string assembleCacheID();

    // Recursive: a hook may query its own task while the description is made.
    std::recursive_mutex m_descriptionMutex;
};

namespace Private {

// The process-wide map from compressed cache ID to task through which equal
// sub-graphs become one task. Guarded by its own mutex.
class RenderTaskCache {
public:
    static RenderTaskCache& instance();
    // The task filed under task's cache ID, filing task first if none is.
    TaskPtr findOrInsert(const TaskPtr& task);
    void clear();
    size_t size() const;

private:
    mutable std::mutex m_mutex;
    std::map<std::string, TaskPtr> m_tasks;
};

}  // namespace Private
}  // namespace TESSERA
