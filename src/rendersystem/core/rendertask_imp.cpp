#include "rendersystem/core/rendertask_imp.h"

#include <iostream>
#include <sstream>

#include "imglib/channels.h"
#include "rendermanager.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendertask_imp")

namespace TESSERA {

RenderTask::Imp::Imp(RenderTask* parentTask, const std::string& name, float time)
    : m_parentTask(parentTask), m_name(name), m_time(time) {
    UTIL_ASSERT(m_parentTask);
    std::ostringstream label;
    label << name << '@' << time;
    m_nameAtTime = label.str();
}

RenderTask::Imp::~Imp() = default;

size_t RenderTask::Imp::registerInputTask(TaskPtr inputTask) {
    UTIL_ASSERT(inputTask);
    UTIL_ASSERT(inputTask->m_imp);
    UTIL_ASSERT(m_renderStage == RENDERSTAGE_Init);
    // Equal sub-graphs become one task: the input is replaced by the task
    // already filed under its cache ID.
    m_inputTasks.push_back(Private::RenderTaskCache::instance().findOrInsert(inputTask));
    return m_inputTasks.size() - 1;
}

TaskPtr RenderTask::Imp::getInputTask(size_t inputID) const {
    UTIL_ASSERT_TEXT(inputID < m_inputTasks.size(),
                     "inputID >= 0 && inputID < m_inputTasks.size()");
    return m_inputTasks[inputID];
}

void RenderTask::Imp::replaceInput(size_t inputID, const TaskPtr& input) {
    UTIL_ASSERT_TEXT(inputID < m_inputTasks.size(),
                     "inputID >= 0 && inputID < m_inputTasks.size()");
    m_inputTasks[inputID] = input;
}

RenderTask::Imp& RenderTask::Imp::inputImp(size_t inputID) {
    UTIL_ASSERT(m_renderStage >= RENDERSTAGE_ComputeOutputDescription);
    TaskPtr inputTask = getInputTask(inputID);
    UTIL_ASSERT(inputTask->m_imp->m_renderStage >= RENDERSTAGE_ComputeOutputDescription);
    return *inputTask->m_imp;
}

void RenderTask::Imp::ensureOutputDescription() {
    std::lock_guard<std::recursive_mutex> lock(m_descriptionMutex);
    if (m_renderStage >= RENDERSTAGE_ComputeOutputDescription) return;
    m_renderStage = RENDERSTAGE_ComputeOutputDescription;
    try {
        for (const TaskPtr& input : m_inputTasks) input->m_imp->ensureOutputDescription();
        computeOwnOutputDescription();
    } catch (...) {
        // A hook refused its parameters: the task has no description, and a
        // later query tries again (and fails the same way) instead of
        // reading a half-made one.
        m_renderStage = RENDERSTAGE_Init;
        throw;
    }
}

void RenderTask::Imp::computeOwnOutputDescription() {
    RenderTask& t = task();
    const std::string cacheID = assembleCacheID();
    const uint64_t channels = t.computeOutputChannels();
    const Imath::Color4<float> background = t.computeBackgroundColor();
    UTIL::Region region = t.computeOutputDataRegion();

    UTIL_ASSERT(m_renderStage == RENDERSTAGE_ComputeOutputDescription);
    m_definedOutputChannels = IMGLIB::ValidateChannelMask(channels);
    m_definedOutputDataRegion = std::move(region);
    m_backgroundColor = background;
    m_format = t.computeFormat();
    m_cacheID = cacheID;
    // A cache ID that is already in compressed form stands for itself.
    m_compressedCacheID = cacheID.compare(0, 1, "$") == 0 ? cacheID : compressCacheID(cacheID);

    if (RenderManager::getRenderDebug()) {
        std::ostringstream line;
        line << m_nameAtTime
             << " Defined channels: " << IMGLIB::GetChannelMaskName(m_definedOutputChannels)
             << " Defined area: " << m_definedOutputDataRegion << " Cache ID: '" << m_cacheID << "'"
             << " Compressed CacheID: '" << m_compressedCacheID << "'";
        RenderManager::debugLine(line.str());
    }
}

}  // namespace TESSERA
