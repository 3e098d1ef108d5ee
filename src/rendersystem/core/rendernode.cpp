// The per-render side of a task: its requests, its tiles and the per-tile
// protocol (preRender once, the tile, postRender after the last).
#include "rendersystem/core/rendernode.h"

#include <chrono>
#include <iostream>
#include <sstream>

#include "exceptions.h"
#include "imglib/channels.h"
#include "private/imglibcall.h"
#include "private/pixelview.h"
#include "rendermanager.h"
#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/renderplan.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/rendertask_imp")

namespace TESSERA {
namespace Private {
namespace {

thread_local RenderNode* t_currentNode = nullptr;

}  // namespace

RenderNode::RenderNode(const TaskPtr& task, RenderPlan& plan)
    : m_task(task), m_imp(task->imp()), m_plan(plan), m_inputRequests(m_imp.m_inputTasks.size()) {}

RenderNode::~RenderNode() = default;

RenderNode* RenderNode::current(const RenderTask::Imp& imp) {
    return t_currentNode && &t_currentNode->m_imp == &imp ? t_currentNode : nullptr;
}

RenderNode::Scope::Scope(RenderNode& node) : m_previous(t_currentNode) {
    t_currentNode = &node;
}

RenderNode::Scope::~Scope() {
    t_currentNode = m_previous;
}

void RenderNode::addInputRequest(size_t inputID, uint64_t channels, IMGLIB::ExtendMethod method,
                                 bool extendWithOverscan, const UTIL::Rect& inputDisplayRect) {
    if (RenderManager::getRenderDebug()) {
        std::ostringstream line;
        line << m_imp.m_nameAtTime << " Request: " << inputID
             << " Channels: " << IMGLIB::GetChannelMaskName(channels)
             << " ExtendMethod: " << static_cast<int>(method)
             << " ExtendWithOverscan: " << extendWithOverscan << " Rect: " << inputDisplayRect;
        RenderManager::debugLine(line.str());
    }
    UTIL_ASSERT_TEXT(inputID < m_inputRequests.size(),
                     "inputID >= 0 && inputID < m_inputRequests.size()");
    if (m_inputRequests[inputID]) {
        std::cerr << "Render task already registered at inputID " << inputID << " of renderTask "
                  << m_imp.m_nameAtTime << std::endl;
        UTIL_ASSERT_TEXT(!m_inputRequests[inputID], "m_inputRequests.is_null(inputID)");
    }
    if (method != IMGLIB::EXTEND_BACKGROUND) UTIL_ASSERT(!inputDisplayRect.isNull());

    RenderNode& input = *m_inputs[inputID];
    channels = IMGLIB::ValidateChannelMask(channels);
    m_inputRequests[inputID] =
        InputRequest::create(&input.m_imp, channels, method, extendWithOverscan, inputDisplayRect,
                             m_imp.m_readsInputDataOnly);
    input.requireOutputChannels(channels);
}

void RenderNode::requireOutputChannels(uint64_t channels) {
    m_requiredOutputChannels = IMGLIB::ValidateChannelMask((m_requiredOutputChannels | channels) &
                                                           m_imp.m_definedOutputChannels);
}

uint64_t RenderNode::getRequiredInputChannels(int64_t whichInput) const {
    UTIL_ASSERT_TEXT(whichInput >= 0 && whichInput < static_cast<int64_t>(m_inputRequests.size()),
                     "whichInput >=0 && whichInput < static_cast<int64_t>(m_inputRequests.size())");
    UTIL_ASSERT_TEXT(m_inputRequests[static_cast<size_t>(whichInput)],
                     "!m_inputRequests.is_null(static_cast<std::size_t>(whichInput))");
    return m_inputRequests[static_cast<size_t>(whichInput)]->getChannels();
}

const InputRequest* RenderNode::getInputRequest(size_t inputID) const {
    return inputID < m_inputRequests.size() ? m_inputRequests[inputID].get() : nullptr;
}

int RenderNode::tileWidth() const {
    return task().isRenderTiled() ? m_plan.tileWidth() : TileID::INFINITE_SIZE;
}

int RenderNode::tileHeight() const {
    return task().isRenderTiled() ? m_plan.tileHeight() : TileID::INFINITE_SIZE;
}

void RenderNode::checkTileGrid(const UTIL::Rect& area, const std::string& what) const {
    const int w = tileWidth(), h = tileHeight();
    std::ostringstream problem;
    if (!TileID::fitsGrid(area, w, h))
        problem << " lies beyond the tile grid";
    else if (TileID::countTiles(area, w, h) > kMaxTilesPerArea)
        problem << " needs " << TileID::countTiles(area, w, h) << " tiles, more than "
                << kMaxTilesPerArea << " at once";
    else
        return;
    std::ostringstream message;
    message << what << " (task " << m_imp.m_name << "): the area " << area << problem.str()
            << " with tiles of " << w << " x " << h
            << " pixels; use larger tiles or a smaller area";
    throw UTIL::ErrorException(message.str());
}

void RenderNode::tileIDs(const UTIL::Region& area, std::vector<TileID>& out) const {
    checkTileGrid(area.boundingBox(), "Render");
    TileID::convertToTileIDs(area, out, tileWidth(), tileHeight());
}

uint64_t RenderNode::setUp(std::vector<TilePtr>& readyTiles) {
    UTIL_ASSERT(m_stage == RENDERSTAGE_ReadyToSetUpInputRequests);
    if (m_requiredOutputChannels == 0) {
        // No consumer needs any channel of it: nothing to render or ask.
        m_stage = RENDERSTAGE_InputRequestsSetUp;
        return 0;
    }
    {
        Scope scope(*this);
        task().makeInputFormatRequests();
    }
    std::vector<TilePtr> tiles;
    {
        std::lock_guard<std::mutex> lock(m_tileMapMutex);
        for (const auto& entry : m_tileMap) tiles.push_back(entry.second);
    }
    {
        std::lock_guard<std::mutex> lock(m_imp.m_renderLock);
        m_tilesLeft = tiles.size();
    }
    decideDirectReads(tiles);
    for (const TilePtr& tile : tiles) {
        if (tile->tryGetFromSpeculativeCache())
            tile->setStage(InputsReady);
        else
            setUpTile(tile);
        if (tile->getStage() == InputsReady) {
            tile->setStage(InRenderQueue);
            readyTiles.push_back(tile);
        }
    }
    m_stage = RENDERSTAGE_InputRequestsSetUp;
    return tiles.size();
}

void RenderNode::setUpTile(const TilePtr& tile) {
    std::vector<UTIL::Rect> inputRects(m_inputs.size());
    {
        Scope scope(*this);
        task().computeRequiredInputRects(tile->getRect(), inputRects);
    }
    inputRects.resize(m_inputs.size());
    if (tile->getStage() >= InputRequestsDone)
        UTIL::assertFailed("getStage() < InputRequestsDone", "include/private/tile", __LINE__);
    for (size_t i = 0; i < m_inputs.size(); ++i) {
        const InputRequest* request = m_inputRequests[i].get();
        if (!request || request->getChannels() == 0 || inputRects[i].isNull()) {
            inputRects[i] = UTIL::Rect();
            continue;
        }
        // Only tiles that hold data are rendered; the request makes up the
        // rest of the image (background colour or extension).
        const UTIL::Rect fetch = request->requiredInputRect(inputRects[i]);
        RenderNode& input = *m_inputs[i];
        // Channels the input does not define are its background colour.
        if ((request->getChannels() & input.m_imp.m_definedOutputChannels) == 0) continue;
        // Undecided still when the largest tile fetched none of it.
        if (input.m_directRead == DirectRead::Undecided) input.m_directRead = DirectRead::Never;
        if (input.readsDirectly()) continue;  // read when the tile renders
        std::vector<TileID> ids;
        input.tileIDs(input.m_imp.m_definedOutputDataRegion.intersection(fetch), ids);
        for (const TileID& id : ids) {
            TilePtr inputTile = input.getOrCreateTile(id);
            inputTile->addDependent(fetch.intersection(id.rect()), tile);
            tile->addInputTile(i, inputTile);
        }
    }
    tile->setInputRects(std::move(inputRects));
    tile->finishInputRequests();
}

void RenderNode::decideDirectReads(const std::vector<TilePtr>& tiles) {
    std::vector<size_t> undecided;
    for (size_t i = 0; i < m_inputs.size(); ++i)
        if (m_inputs[i]->m_directRead == DirectRead::Undecided) undecided.push_back(i);
    if (undecided.empty() || tiles.empty()) return;
    // The largest tile: those at the edges of an area are cut short.
    UTIL::Rect tile;
    for (const TilePtr& t : tiles)
        if (t->getRect().area() > tile.area()) tile = t->getRect();
    std::vector<UTIL::Rect> inputRects(m_inputs.size());
    {
        // The task's own hook: the render's wrapper records what a task
        // rendered full frame was asked, once.
        Scope scope(*this);
        task().computeRequiredInputRectangles(tile, inputRects);
    }
    inputRects.resize(m_inputs.size());
    for (size_t i : undecided) {
        const InputRequest* request = m_inputRequests[i].get();
        if (!request || request->getChannels() == 0 || inputRects[i].isNull()) continue;
        // A consumer that fetches about a tile of the source per tile of its
        // own (colour, composites, blurs) reads it directly: nothing of the
        // source waits in tiles for the consumer tiles that share it. One
        // that fetches much more (a shrink, a rotation) reads tiles of the
        // source: each is made once, as a job of its own that any thread may
        // take, and soon done with, where direct reads would be few, large
        // and overlapping.
        RenderNode& input = *m_inputs[i];
        const bool direct = request->requiredInputRect(inputRects[i]).area() <= 2 * tile.area();
        input.m_directRead = direct ? DirectRead::Always : DirectRead::Never;
        if (direct) dynamic_cast<DirectSource&>(input.task()).readDirectly();
    }
}

TilePtr RenderNode::getOrCreateTile(const TileID& id) {
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    TilePtr& tile = m_tileMap[id];
    if (!tile) tile = TilePtr(new Tile(id, this));
    return tile;
}

void RenderNode::removeTile(const TileID& id) {
    TilePtr removed;  // released outside the mutex
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    auto it = m_tileMap.find(id);
    if (it == m_tileMap.end()) return;
    removed = it->second;
    m_tileMap.erase(it);
}

std::map<TileID, TilePtr> RenderNode::takeTiles() {
    std::map<TileID, TilePtr> tiles;
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    tiles.swap(m_tileMap);
    return tiles;
}

bool RenderNode::hasTiles() {
    std::lock_guard<std::mutex> lock(m_tileMapMutex);
    return !m_tileMap.empty();
}

bool RenderNode::cancelled() const {
    return m_plan.cancelled();
}

void RenderNode::runPreRender() {
    std::lock_guard<std::mutex> lock(m_imp.m_renderLock);
    if (cancelled()) throw RenderCancelledException("preRender cancelled.");
    if (!m_joined) {
        // The first render to start the task runs preRender; renders that
        // join while it is being rendered share what it made.
        m_joined = true;
        if (m_imp.m_renderSessions++ == 0) {
            RenderManager::debugLine(m_imp.m_nameAtTime + " beginning to render");
            try {
                task().preRender();
            } catch (...) {
                m_imp.m_preRenderState = 2;
                throw;
            }
            m_imp.m_preRenderState = 1;
            return;
        }
    }
    if (m_imp.m_preRenderState == 2)
        throw RenderTaskRenderingException(m_imp.m_nameAtTime, "An error occurred in preRender.",
                                           -1);
}

void RenderNode::leaveSessionLocked() {
    if (!m_joined || m_left) return;
    m_left = true;
    if (--m_imp.m_renderSessions != 0) return;
    // postRender pairs with preRender: a task whose tiles all came from the
    // cache never started rendering.
    if (m_imp.m_preRenderState == 1) task().postRender();
    m_imp.m_preRenderState = 0;
}

void RenderNode::leaveSession() {
    Scope scope(*this);
    std::lock_guard<std::mutex> lock(m_imp.m_renderLock);
    leaveSessionLocked();
}

bool RenderNode::lastTileCheck() {
    Scope scope(*this);
    std::lock_guard<std::mutex> lock(m_imp.m_renderLock);
    if (m_tilesLeft == 0 || --m_tilesLeft != 0) return false;
    leaveSessionLocked();
    RenderManager::debugLine(m_imp.m_nameAtTime + " finished rendering");
    return true;
}

void RenderNode::renderInto(const IMGLIB::Image* output, std::vector<ImageBuffer>& inputs,
                            bool mayMissData) {
    const UTIL::Rect rect(output->x1, output->y1, output->x2, output->y2);
    const UTIL::Region& defined = m_imp.m_definedOutputDataRegion;
    const UTIL::Region area = defined.intersection(rect);
    if (area.isEmpty() && !mayMissData) {
        std::cerr << "Defined Output Data Region " << defined << std::endl;
        std::cerr << "Tile Rect " << rect << std::endl;
        throw RenderTaskRenderingException(
            m_imp.m_nameAtTime,
            "Tile was asked to render an image that doesn't intersect it's defined output area",
            -1);
    }
    // An output tile beyond the data still reaches the host: the part
    // outside the data is the background colour.
    fillOutside(output, area, m_imp.m_backgroundColor, m_imp.m_nameAtTime);
    for (const UTIL::Rect& r : area.rects()) {
        IMGLIB::Image sub;
        checkImglib(IMGLIB::GetSubImage(output, r.xmin, r.ymin, r.xmax, r.ymax, &sub),
                    m_imp.m_nameAtTime);
        task().render(&sub, inputs);
    }
}

ImageBuffer RenderNode::renderDirect(const UTIL::Rect& rect) {
    Scope scope(*this);
    runPreRender();
    ImageBuffer image(m_requiredOutputChannels, rect, "Direct Read :" + m_imp.m_name);
    {
        ImageBuffer_LockScoper lock(image);
        std::vector<ImageBuffer> none;
        renderInto(image.getImage(), none, false);
    }
    return image;
}

bool RenderNode::renderTile(Tile& tile, const IMGLIB::Image* output) {
    const auto start = std::chrono::steady_clock::now();
    Scope scope(*this);
    runPreRender();
    std::vector<ImageBuffer> inputs;
    {
        UTIL::TaskProfiler::Scope profile(RenderManager::s_renderSystemProfiler,
                                          "[Threaded Render Internal]: Input Image Preparation");
        inputs = tile.buildInputImages();
    }
    {
        UTIL::TaskProfiler::Scope profile(RenderManager::s_renderSystemProfiler,
                                          "[Threaded Render Internal]: Actual Rendering");
        renderInto(output, inputs, tile.isFinal());
    }
    RenderManager::s_renderSystemProfiler.addTime("[Task] " + m_imp.m_typeString,
                                                  UTIL::millisecondsSince(start));
    inputs.clear();
    return lastTileCheck();
}

}  // namespace Private
}  // namespace TESSERA
