#include "rendertask.h"

#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "rendermanager.h"
#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/rendernode.h"
#include "rendersystem/core/renderplan.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendertask")

namespace TESSERA {

std::atomic<uint64_t> RenderTask::s_count{0};

namespace {

// The node of the render whose hook of `task` this thread is running.
Private::RenderNode& currentNode(const RenderTask::Imp& task) {
    Private::RenderNode* node = Private::RenderNode::current(task);
    if (!node)
        UTIL::assertFailed(
            ("a render of " + task.m_nameAtTime + " runs its hooks on this thread").c_str(),
            "rendersystem/core/rendertask", __LINE__);
    return *node;
}

}  // namespace

RenderTask::RenderTask(const std::string& name, float time) : m_imp(new Imp(this, name, time)) {
    ++s_count;
}

RenderTask::~RenderTask() {
    --s_count;
}

RenderTask::Imp& RenderTask::imp() const {
    UTIL_ASSERT(m_imp);
    return *m_imp;
}

const std::string& RenderTask::getName() const {
    return imp().m_name;
}
const std::string& RenderTask::getNameAtTime() const {
    return imp().m_nameAtTime;
}
float RenderTask::getTime() const {
    return imp().m_time;
}

void RenderTask::setCaching(bool caching) {
    imp().m_caching = caching;
}
bool RenderTask::getCaching() {
    return imp().m_caching;
}
void RenderTask::setDiskCacheEnabled(bool enabled) {
    imp().m_diskCacheEnabled = enabled;
}
void RenderTask::setSampleRate(float x, float y) {
    imp().setSampleRate(x, y);
}
void RenderTask::setProbabilityBeingEdited(float p) {
    imp().m_probabilityBeingEdited = p;
}
float RenderTask::getProbabilityIsNeeded() const {
    return imp().m_probabilityIsNeeded;
}

void RenderTask::getOutputDescription(uint64_t* channels, UTIL::Region* region) {
    imp().ensureOutputDescription();
    if (channels) *channels = m_imp->m_definedOutputChannels;
    if (region) *region = m_imp->m_definedOutputDataRegion;
}

const std::string& RenderTask::getCacheID() {
    imp().ensureOutputDescription();
    return m_imp->m_compressedCacheID;
}

const Imath::Color4<float>& RenderTask::getBackgroundColor() {
    imp().ensureOutputDescription();
    return m_imp->m_backgroundColor;
}

void RenderTask::getAllInputRenderTasks(std::vector<TaskPtr>&) {
    imp();
}

void RenderTask::outputCachingInfo(std::ostream& os) const {
    imp();
    os << "Not Implemented Yet " << std::endl;
}

size_t RenderTask::convertToTileIDs(const UTIL::Rect& rect, std::vector<TileID>& out) const {
    return TileID::convertToTileIDs(rect, out, getTileWidth(), getTileHeight());
}

size_t RenderTask::convertToTileIDs(const UTIL::Region& region, std::vector<TileID>& out) const {
    return TileID::convertToTileIDs(region, out, getTileWidth(), getTileHeight());
}

void RenderTask::setRenderFullFrame(bool fullFrame, bool wrapInputImagesIfBackground) {
    imp();
    m_renderFullFrame = fullFrame;
    m_wrapInputImagesIfBackground = wrapInputImagesIfBackground;
}

bool RenderTask::isRenderTiled() {
    imp();
    return !m_renderFullFrame;
}

void RenderTask::setWrapInputImagesIfBackground(bool wrap) {
    imp();
    m_wrapInputImagesIfBackground = wrap;
}

int64_t RenderTask::getFinalRenderTaskID() {
    return imp().m_finalRenderTaskID;
}

size_t RenderTask::registerInputTask(TaskPtr input) {
    return imp().registerInputTask(input);
}
size_t RenderTask::getInputTaskCount() const {
    return imp().getInputTaskCount();
}

void RenderTask::addInputRequest(size_t input, uint64_t channels) {
    currentNode(imp()).addInputRequest(input, channels, IMGLIB::EXTEND_BACKGROUND, false,
                                       UTIL::Rect());
}

void RenderTask::addInputRequest(size_t input, uint64_t channels, IMGLIB::ExtendMethod method,
                                 bool extendWithOverscan, const UTIL::Rect& displayRect) {
    currentNode(imp()).addInputRequest(input, channels, method, extendWithOverscan, displayRect);
}

uint64_t RenderTask::getDefinedInputChannels(size_t input) {
    return imp().getDefinedInputChannels(input);
}

const UTIL::Region& RenderTask::getDefinedInputDataRegion(size_t input) {
    return imp().getDefinedInputDataRegion(input);
}

const Imath::Color4<float>& RenderTask::getInputBackgroundColor(size_t input) {
    return imp().getInputBackgroundColor(input);
}

const UTIL::Rect& RenderTask::getInputFormat(size_t input) {
    return imp().getInputFormat(input);
}

const UTIL::Rect& RenderTask::getFormat() {
    imp().ensureOutputDescription();
    return m_imp->m_format;
}

const std::string& RenderTask::getInputCacheID(size_t input) {
    return imp().getInputCacheID(input);
}

void RenderTask::ignoreInputCacheID(size_t input) {
    imp().ignoreInputCacheID(input);
}

uint64_t RenderTask::getRequiredOutputChannels() const {
    return currentNode(imp()).requiredOutputChannels();
}

uint64_t RenderTask::getRequiredInputChannels(int64_t input) const {
    return currentNode(imp()).getRequiredInputChannels(input);
}

const UTIL::Region& RenderTask::getDefinedOutputDataRegion() const {
    return imp().m_definedOutputDataRegion;
}

int RenderTask::getTileWidth() const {
    if (const Private::RenderNode* node = Private::RenderNode::current(imp()))
        return node->tileWidth();
    return m_renderFullFrame ? TileID::INFINITE_SIZE
                             : static_cast<int>(RenderManager::getGlobalTileWidth());
}

int RenderTask::getTileHeight() const {
    if (const Private::RenderNode* node = Private::RenderNode::current(imp()))
        return node->tileHeight();
    return m_renderFullFrame ? TileID::INFINITE_SIZE
                             : static_cast<int>(RenderManager::getGlobalTileHeight());
}

void RenderTask::setRenderLocalLocking(bool localLocking) {
    m_renderLocalLocking = localLocking;
}

void RenderTask::setReadsInputDataOnly(bool dataOnly) {
    imp().m_readsInputDataOnly = dataOnly;
}

ImageBuffer RenderTask::makeBackgroundInputImage(size_t input, uint64_t channels,
                                                 const UTIL::Rect& rect,
                                                 const std::string& comment) {
    ImageBuffer image(channels, rect, comment);
    ImageBuffer_LockScoper fillLock(image);
    const Imath::Color4<float>& bg = getInputBackgroundColor(input);
    const float rgba[4] = {bg.r, bg.g, bg.b, bg.a};
    Private::checkImglib(IMGLIB::Fill(image.getImage(), rgba), getNameAtTime());
    return image;
}

UTIL::Rect RenderTask::computeFormat() {
    if (getInputTaskCount() == 0) return getDefinedOutputDataRegion().boundingBox();
    return getInputFormat(0);
}

Imath::Color4<float> RenderTask::computeBackgroundColor() {
    if (getInputTaskCount() == 0) return Imath::Color4<float>(0, 0, 0, 0);
    return getInputBackgroundColor(0);
}

void RenderTask::renderRect(const IMGLIB::Image*, std::vector<ImageBuffer>&) {
    UTIL_ASSERT(!"This RenderTask does not support delayed locking.");
}

void RenderTask::renderRect(const IMGLIB::Image*, const std::vector<const IMGLIB::Image*>&) {
    UTIL_ASSERT(!"This RenderTask does not support immediate locking.");
}

void RenderTask::computeRequiredInputRects(const UTIL::Rect& outputRect,
                                           std::vector<UTIL::Rect>& inputRects) {
    if (!m_renderFullFrame) {
        computeRequiredInputRectangles(outputRect, inputRects);
        return;
    }
    Private::RenderNode::FullFrame& frame = currentNode(imp()).fullFrame();
    std::lock_guard<std::mutex> lock(frame.lock);
    UTIL_ASSERT_TEXT(frame.requiredOutputRect.isNull(), "m_requiredOutputRect.isNull()");
    frame.requiredOutputRect = outputRect;
    computeRequiredInputRectangles(outputRect, inputRects);
    frame.requiredInputRects = inputRects;
}

void RenderTask::render(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs) {
    if (!m_renderFullFrame) {
        callRenderRect(output, inputs);
        return;
    }
    Private::RenderNode& node = currentNode(imp());
    Private::RenderNode::FullFrame& frame = node.fullFrame();
    std::lock_guard<std::mutex> lock(frame.lock);
    const UTIL::Rect outputImageRect(output->x1, output->y1, output->x2, output->y2);
    if (frame.outputBuffer.isNull()) {
        if (m_wrapInputImagesIfBackground) {
            for (size_t i = 0; i < inputs.size() && i < frame.requiredInputRects.size(); ++i) {
                if (!inputs[i].isNull()) continue;
                const Private::InputRequest* request = node.getInputRequest(i);
                const uint64_t channels =
                    request ? request->getChannels() : getDefinedInputChannels(i);
                inputs[i] =
                    makeBackgroundInputImage(i, channels, frame.requiredInputRects[i],
                                             "BufferTaskBackgroungImage_" + std::to_string(i));
            }
        }
        if (outputImageRect == frame.requiredOutputRect) {
            callRenderRect(output, inputs);
            return;
        }
        frame.outputBuffer =
            ImageBuffer(output->channels, frame.requiredOutputRect, "BufferTaskImage");
        ImageBuffer_LockScoper renderLock(frame.outputBuffer);
        callRenderRect(frame.outputBuffer.getImage(), inputs);
    }
    UTIL_ASSERT(frame.outputBuffer.getBounds().contains(outputImageRect));
    ImageBuffer_LockScoper copyLock(frame.outputBuffer);
    Private::checkImglib(IMGLIB::CopyInto(output, frame.outputBuffer.getImage()), getNameAtTime());
}

void RenderTask::callRenderRect(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs) {
    if (m_renderLocalLocking) {
        renderRect(output, inputs);
        return;
    }
    ImageBuffer_MultiLockScoper locks;
    std::vector<const IMGLIB::Image*> images;
    images.reserve(inputs.size());
    for (ImageBuffer& input : inputs) images.push_back(locks.push(input));
    renderRect(output, images);
}

}  // namespace TESSERA
