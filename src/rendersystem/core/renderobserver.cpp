#include "renderobserver.h"

namespace TESSERA {

RenderObserver::~RenderObserver() = default;
void RenderObserver::internalTileDone(const std::string&, const std::string&, double) {}
void RenderObserver::outputFinished(size_t) {}
void RenderObserver::renderFinished(RenderStatus, const std::string&) {}

}  // namespace TESSERA
