// RenderTask::Imp: a task's inputs, its output description and what every
// render of it shares.
#pragma once

#include <Imath/ImathColor.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "rendertask.h"
#include "util/region.h"

namespace TESSERA {

enum RenderStage : int {
    RENDERSTAGE_Init = 0,                       // inputs may be registered
    RENDERSTAGE_ComputeOutputDescription = 1,   // inputs' descriptions may be read
    RENDERSTAGE_ReadyToSetUpInputRequests = 2,  // every consumer has asked its tiles
    RENDERSTAGE_InputRequestsSetUp = 4,         // tiles may be rendered
};

// The task's inputs, its output description (defined channels and data
// region, background colour, cache ID) and what every render of it shares.
// The description is computed once, on first demand, inputs first; from then
// on the task takes no further inputs. What one render asks of the task (its
// tiles, the requests it makes, the channels asked of it) lives in that
// render's RenderNode, so several renders may use one task at once.
//
// m_descriptionMutex serialises computing the description; it is taken on a
// task before its inputs', so a walk down the acyclic graph never waits in a
// circle. Everything the description sets is read-only afterwards, except
// where render set-up collapses a chain into this task (under the set-up
// lock, and only while no render uses the task).
//
// m_renderLock guards the render session: preRender runs when the first
// render starts rendering the task and postRender when the last one that
// did is done with it, so state a task keeps for rendering is made once and
// outlives every render that reads it.
class RenderTask::Imp {
public:
    Imp(RenderTask* parentTask, const std::string& name, float time);
    ~Imp();

    RenderTask& task() const { return *m_parentTask; }

    size_t registerInputTask(TaskPtr inputTask);
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
    const UTIL::Rect& getInputFormat(size_t inputID) { return inputImp(inputID).m_format; }
    const std::string& getInputCacheID(size_t inputID) {
        return inputImp(inputID).m_compressedCacheID;
    }

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
    RenderStage m_renderStage = RENDERSTAGE_Init;  // Init or ComputeOutputDescription
    std::vector<TaskPtr> m_inputTasks;
    std::vector<size_t> m_ignoredInputCacheIDs;

    uint64_t m_definedOutputChannels = 0;
    UTIL::Region m_definedOutputDataRegion;
    Imath::Color4<float> m_backgroundColor{0, 0, 0, 0};
    UTIL::Rect m_format;  // the display window
    std::string m_typeString;
    std::string m_cacheID;
    std::string m_compressedCacheID;
    std::string m_parameterCacheID;

    bool m_readsInputDataOnly = false;  // see RenderTask::setReadsInputDataOnly
    bool m_caching = true;
    bool m_diskCacheEnabled = true;
    bool m_sampleRateIsSet = false;
    float m_sampleRateX = 1.0f;
    float m_sampleRateY = 1.0f;
    float m_probabilityBeingEdited = 0.0f;
    float m_probabilityIsNeeded = 1.0f;
    std::vector<bool> m_neededByOutputs;          // one bit per output of the render
    std::atomic<int64_t> m_finalRenderTaskID{0};  // the latest render that used the task
    std::atomic<int> m_activeRenders{0};          // renders set up and not ended that use it

    std::mutex m_renderLock;   // guards the render session below
    int m_renderSessions = 0;  // renders that ran preRender and are not done with the task
    int m_preRenderState = 0;  // 0 not run, 1 done, 2 failed

private:
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
