#include <openssl/evp.h>

#include <algorithm>

#include "rendersystem/core/rendertask_imp.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendertask_imp_caching")

namespace TESSERA {
namespace {

// Only the first sixteen letters can occur (one per nibble); the table is
// kept whole so the IDs stay the same everywhere they were ever written.
constexpr char kCompressedAlphabet[] = "abcdefghijklmnopqrstuvwxyz1234567890_-";

}  // namespace

std::string RenderTask::Imp::compressCacheID(const std::string& fullCacheID) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(fullCacheID.data(), fullCacheID.size(), digest, &length, EVP_md5(), nullptr) !=
            1 ||
        length != 16)
        throw UTIL::FatalErrorException("cache ID digest failed");
    std::string compressed = "$";
    compressed.reserve(33);
    for (unsigned int i = 0; i < length; ++i) {
        compressed += kCompressedAlphabet[digest[i] & 0x0F];
        compressed += kCompressedAlphabet[digest[i] >> 4];
    }
    return compressed;
}

std::string RenderTask::Imp::assembleCacheID() {
    RenderTask& t = task();
    m_typeString = t.getTypeString();
    CacheIDStream stream(m_typeString);
    t.computeCacheID(stream);
    m_parameterCacheID = compressCacheID(stream.str());
    for (size_t i = 0; i < m_inputTasks.size(); ++i) {
        if (std::find(m_ignoredInputCacheIDs.begin(), m_ignoredInputCacheIDs.end(), i) !=
            m_ignoredInputCacheIDs.end())
            continue;
        stream << getInputCacheID(i) << ",";
    }
    return stream.str();
}

void RenderTask::Imp::ignoreInputCacheID(size_t inputID) {
    if (std::find(m_ignoredInputCacheIDs.begin(), m_ignoredInputCacheIDs.end(), inputID) ==
        m_ignoredInputCacheIDs.end())
        m_ignoredInputCacheIDs.push_back(inputID);
}

void RenderTask::Imp::setSampleRate(float x, float y) {
    if (m_sampleRateIsSet) return;  // the first setting to reach a task wins
    m_sampleRateX = x;
    m_sampleRateY = y;
    m_sampleRateIsSet = true;
    for (const TaskPtr& input : m_inputTasks) input->m_imp->setSampleRate(x, y);
}

float RenderTask::Imp::getSampleRateX() const {
    UTIL_ASSERT(m_sampleRateIsSet);
    return m_sampleRateX;
}

float RenderTask::Imp::getSampleRateY() const {
    UTIL_ASSERT(m_sampleRateIsSet);
    return m_sampleRateY;
}

void RenderTask::Imp::setNeededByOutputs(const std::vector<bool>& outputs) {
    m_neededByOutputs = outputs;
}

void RenderTask::Imp::computeProbabilityIsNeeded(const std::vector<float>& outputProbabilities) {
    // The chance that at least one of the outputs that need the task is needed.
    double none = 1.0;
    for (size_t i = 0; i < m_neededByOutputs.size() && i < outputProbabilities.size(); ++i)
        if (m_neededByOutputs[i]) none *= 1.0 - outputProbabilities[i];
    m_probabilityIsNeeded = static_cast<float>(1.0 - none);
}

namespace Private {

RenderTaskCache& RenderTaskCache::instance() {
    static RenderTaskCache* cache = new RenderTaskCache();  // outlives every task
    return *cache;
}

TaskPtr RenderTaskCache::findOrInsert(const TaskPtr& task) {
    const std::string id = task->getCacheID();  // may walk the input's graph: not under m_mutex
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_tasks.emplace(id, task).first->second;
}

void RenderTaskCache::clear() {
    std::map<std::string, TaskPtr> tasks;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        tasks.swap(m_tasks);
    }
    // Tasks are released here, outside the mutex: a task's destructor may
    // release its inputs, which could reach this cache again.
}

size_t RenderTaskCache::size() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_tasks.size();
}

}  // namespace Private
}  // namespace TESSERA
