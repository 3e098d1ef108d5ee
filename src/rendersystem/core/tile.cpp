#include "private/tile.h"

#include <algorithm>
#include <sstream>

#include "imglib/error.h"
#include "imglib/pixels.h"
#include "private/pixelview.h"
#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/rendernode.h"
#include "rendersystem/core/renderplan.h"
#include "rendersystem/images/imageallocator.h"
#include "rendersystem/images/imagebuffer_imp.h"
#include "rendersystem/images/speculativecache.h"
#include "util/exceptions.h"

UTIL_ASSERT_SOURCE("rendersystem/core/tile")

namespace TESSERA {
namespace Private {

using Lock = std::lock_guard<std::recursive_mutex>;

std::atomic<uint64_t> Tile::s_liveTiles{0};

Tile::Tile(const TileID& id, RenderNode* task) : m_tileID(id), m_task(task) {
    ++s_liveTiles;
}

Tile::~Tile() {
    --s_liveTiles;
}

uint64_t Tile::liveCount() {
    return s_liveTiles.load();
}

UTIL::Rect Tile::getRect() const {
    Lock lock(m_mutex);
    return m_rect;
}

std::string Tile::describe() const {
    std::ostringstream os;
    os << "Tile " << m_tileID.xIndex() << "," << m_tileID.yIndex() << " of " << m_task->name();
    return os.str();
}

void Tile::markFinal(const UTIL::Rect& rect, unsigned index, size_t outputIndex) {
    Lock lock(m_mutex);
    m_finalTilesBitSet.resize(index + 1);
    m_finalTilesBitSet.set(index);
    // A task asked for by two outputs keeps the union of their areas.
    m_rect = m_final ? m_rect.boundingBox(rect) : rect;
    m_final = true;
    m_outputIndex = outputIndex;
}

bool Tile::isFinal() const {
    Lock lock(m_mutex);
    return m_final;
}

void Tile::resizeFinalTiles(size_t count) {
    Lock lock(m_mutex);
    m_finalTilesBitSet.resize(count);
}

void Tile::addDependent(const UTIL::Rect& requested, const TilePtr& outputTile) {
    Lock lock(m_mutex);
    Lock outputLock(outputTile->m_mutex);
    UTIL_ASSERT(getStage() < InputRequestsDone);
    UTIL_ASSERT(outputTile->m_stage < InputRequestsDone);
    m_rect = m_rect.boundingBox(requested);
    if (m_finalTilesBitSet.size() != 0) {
        UTIL_ASSERT(m_finalTilesBitSet.size() == outputTile->m_finalTilesBitSet.size());
        m_finalTilesBitSet |= outputTile->m_finalTilesBitSet;
    } else {
        m_finalTilesBitSet = outputTile->m_finalTilesBitSet;
    }
    m_dependents.push_back(outputTile);
    ++m_readersLeft;
    outputTile->addPendingInput();
}

void Tile::addPendingInput() {
    Lock lock(m_mutex);
    UTIL_ASSERT(getStage() < InputRequestsDone);
    ++m_pendingInputs;
}

void Tile::addInputTile(size_t input, const TilePtr& tile) {
    Lock lock(m_mutex);
    if (m_inputTiles.size() <= input) m_inputTiles.resize(input + 1);
    m_inputTiles[input].push_back(tile);
}

void Tile::setInputRects(std::vector<UTIL::Rect> rects) {
    Lock lock(m_mutex);
    m_inputRects = std::move(rects);
}

void Tile::finishInputRequests() {
    Lock lock(m_mutex);
    m_stage = m_pendingInputs > 0 ? InputRequestsDone : InputsReady;
}

bool Tile::inputTileDone() {
    Lock lock(m_mutex);
    UTIL_ASSERT(getStage() == InputRequestsDone);
    ++m_finishedInputs;
    if (m_finishedInputs != m_pendingInputs) return false;
    m_stage = InputsReady;
    return true;
}

uint32_t Tile::getPriority(const std::vector<uint32_t>& finalTileOrdering) const {
    Lock lock(m_mutex);
    UTIL_ASSERT(finalTileOrdering.size() == m_finalTilesBitSet.size());
    size_t index = m_finalTilesBitSet.findFirst();
    UTIL_ASSERT(index != m_finalTilesBitSet.npos);
    uint32_t best = finalTileOrdering[index];
    for (index = m_finalTilesBitSet.findFrom(index + 1); index != DynamicBitSet::npos;
         index = m_finalTilesBitSet.findFrom(index + 1))
        best = std::min(best, finalTileOrdering[index]);
    return best;
}

bool Tile::tryGetFromSpeculativeCache() {
    Lock lock(m_mutex);
    const RenderTask::Imp& task = m_task->imp();
    if (!task.m_caching) return false;
    ImageBuffer cached =
        ImageAllocator::instance().speculativeCache().lookup(task.m_compressedCacheID, m_tileID);
    if (cached.isNull()) return false;
    // Another render may have asked other channels or a smaller area of it.
    if (cached.getChannels() != m_task->requiredOutputChannels() ||
        !cached.getBounds().contains(m_rect))
        return false;
    m_image = cached;
    return true;
}

bool Tile::tryViewPixels() {
    const auto* pixels = dynamic_cast<const PixelView*>(&m_task->task());
    if (!pixels) return false;
    Lock lock(m_mutex);
    ImageBuffer view = pixels->viewRect(m_rect, m_task->requiredOutputChannels());
    if (view.isNull()) return false;
    m_image = view;
    return true;
}

bool Tile::tryForwardInput() {
    const auto* forwarding = dynamic_cast<const ForwardsInput*>(&m_task->task());
    if (!forwarding) return false;
    const UTIL::Rect rect = getRect();
    const InputRequest* request = m_task->getInputRequest(0);
    int64_t dx = 0, dy = 0;
    if (rect.isNull() || !request || request->getChannels() != m_task->requiredOutputChannels() ||
        !forwarding->forwardsInput(rect, dx, dy))
        return false;
    const ImageBuffer input = buildInputImages()[0];
    const UTIL::Rect source(rect.xmin - dx, rect.ymin - dy, rect.xmax - dx, rect.ymax - dy);
    if (input.isNull() || input.getChannels() != request->getChannels() ||
        !input.getBounds().contains(source))
        return false;
    Lock lock(m_mutex);
    m_image = ImageBufferAccess::alias(input, source, dx, dy);
    return true;
}

ImageBuffer Tile::getImage() const {
    Lock lock(m_mutex);
    UTIL_ASSERT(getStage() == FinishedRendering);
    return m_image;
}

TileStage Tile::getStage() const {
    Lock lock(m_mutex);
    return m_stage;
}

void Tile::setStage(TileStage stage) {
    Lock lock(m_mutex);
    m_stage = stage;
}

ImageBuffer Tile::createImage() {
    Lock lock(m_mutex);
    UTIL_ASSERT(m_image.isNull());
    std::ostringstream comment;
    comment << "TileImage :" << m_task->name() << "_" << m_tileID.xIndex() << "_"
            << m_tileID.yIndex();
    const uint64_t channels = m_task->requiredOutputChannels();
    if (m_final) {
        // The host's memory takes the pixels where the tile lies inside it:
        // no block to allocate and no copy to hand over.
        const IMGLIB::Image& destination = m_task->plan().destination(m_outputIndex);
        const UTIL::Rect bounds(destination.x1, destination.y1, destination.x2, destination.y2);
        IMGLIB::Image view;
        if (destination.pixelPtr && destination.channels == channels && bounds.contains(m_rect) &&
            IMGLIB::GetSubImage(&destination, m_rect.xmin, m_rect.ymin, m_rect.xmax, m_rect.ymax,
                                &view) == IMGLIB::ERROR_NONE) {
            m_image = ImageBufferAccess::view(view, nullptr, comment.str());
            m_inDestination = true;
            return m_image;
        }
    }
    m_image = ImageBuffer(channels, m_rect, comment.str());
    return m_image;
}

bool Tile::inDestination() const {
    Lock lock(m_mutex);
    return m_inDestination;
}

void Tile::setImage(const ImageBuffer& image) {
    Lock lock(m_mutex);
    m_image = image;
}

bool Tile::hasImage() const {
    Lock lock(m_mutex);
    return !m_image.isNull();
}

std::vector<ImageBuffer> Tile::buildInputImages() const {
    // Copied out first: the input tiles are locked one by one afterwards,
    // never inside this tile's mutex (set-up nests them the other way).
    std::vector<std::vector<TilePtr>> inputTiles;
    std::vector<UTIL::Rect> inputRects;
    {
        Lock lock(m_mutex);
        inputTiles = m_inputTiles;
        inputRects = m_inputRects;
    }
    std::vector<ImageBuffer> inputs(m_task->m_inputs.size());
    for (size_t i = 0; i < inputs.size(); ++i) {
        const InputRequest* request = m_task->getInputRequest(i);
        if (!request || i >= inputRects.size() || inputRects[i].isNull()) continue;
        std::vector<ImageBuffer> tileImages;
        RenderNode& input = *m_task->m_inputs[i];
        if (input.readsDirectly()) {
            const UTIL::Rect data = input.imp()
                                        .m_definedOutputDataRegion
                                        .intersection(request->requiredInputRect(inputRects[i]))
                                        .boundingBox();
            if (!data.isNull() &&
                (request->getChannels() & input.imp().m_definedOutputChannels) != 0)
                tileImages.push_back(input.renderDirect(data));
        }
        if (i < inputTiles.size())
            for (const TilePtr& input : inputTiles[i]) tileImages.push_back(input->getImage());
        inputs[i] = request->buildImage(inputRects[i], tileImages);
    }
    return inputs;
}

std::vector<TilePtr> Tile::takeDependents() {
    Lock lock(m_mutex);
    std::vector<TilePtr> dependents;
    dependents.swap(m_dependents);
    return dependents;
}

void Tile::releaseInputTiles() {
    std::vector<std::vector<TilePtr>> inputs;
    {
        Lock lock(m_mutex);
        inputs.swap(m_inputTiles);
    }
    // An input tile that every consumer has now read leaves its task's map;
    // its image goes with the last reference (to the tile cache, maybe).
    for (const auto& slot : inputs)
        for (const TilePtr& input : slot)
            if (input->readerDone()) input->getTask()->removeTile(input->getTileID());
}

bool Tile::readerDone() {
    Lock lock(m_mutex);
    return m_readersLeft > 0 && --m_readersLeft == 0;
}

void Tile::release() {
    std::vector<TilePtr> dependents = takeDependents();
    releaseInputTiles();
    Lock lock(m_mutex);
    m_image.setNull();
}

}  // namespace Private
}  // namespace TESSERA
