#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "rendersystem/core/inputrequest.h"
#include "rendersystem/core/rendertask_imp.h"

namespace TESSERA {
namespace Private {

ExtendingInputRequest::ExtendingInputRequest(RenderTask::Imp* input, uint64_t channels,
                                             bool extendWithOverscan, const UTIL::Rect& displayRect)
    : ColorInputRequest(input, channels),
      m_extendWithOverscan(extendWithOverscan),
      m_displayRect(displayRect) {}

bool ExtendingInputRequest::needsNoExtension(const UTIL::Rect& requested,
                                             UTIL::Rect& source) const {
    const UTIL::Region data =
        m_extendWithOverscan ? dataRegion() : dataRegion().intersection(m_displayRect);
    if (data.contains(requested)) return true;
    // The display rectangle's pixels count as source even where the data
    // does not reach: there they hold the background colour.
    source = data.boundingBox().boundingBox(m_displayRect);
    return false;
}

UTIL::Rect ExtendingInputRequest::requiredInputRect(const UTIL::Rect& requested) const {
    UTIL::Rect source;
    if (needsNoExtension(requested, source)) return requested;
    return requiredSourceRect(requested, source);
}

ImageBuffer ExtendingInputRequest::buildImage(const UTIL::Rect& requested,
                                              const std::vector<ImageBuffer>& tileImages) const {
    UTIL::Rect source;
    if (needsNoExtension(requested, source)) return assemble(requested, tileImages, true);

    std::vector<IMGLIB::ExtendAction> actions;
    splitRectToExtendActions(requested, source, actions);
    const UTIL::Rect read = requiredSourceRect(requested, source);
    const std::string& name = m_input->m_nameAtTime;
    if (requested.contains(read)) {
        // The pixels the extension reads are part of the image itself.
        ImageBuffer image = assemble(requested, tileImages, false);
        {
            ImageBuffer_LockScoper lock(image);
            checkImglib(IMGLIB::DoExtendActions(image.getImage(), actions, image.getImage()), name);
        }
        return image;
    }
    // The extension reads pixels beyond the requested rectangle: gather them
    // apart, then build the image from them.
    ImageBuffer sourceImage = assemble(read, tileImages, true);
    ImageBuffer image(m_channels, requested, "Temporary Image From Many Tiles");
    {
        ImageBuffer_LockScoper lock(image), sourceLock(sourceImage);
        checkImglib(IMGLIB::CopyInto(image.getImage(), sourceImage.getImage()), name);
        checkImglib(IMGLIB::DoExtendActions(image.getImage(), actions, sourceImage.getImage()),
                    name);
    }
    return image;
}

void ClampInputRequest::splitRectToExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                                 std::vector<IMGLIB::ExtendAction>& actions) const {
    IMGLIB::SplitRectToClampExtendActions(rect, source, actions);
}

UTIL::Rect ClampInputRequest::requiredSourceRect(const UTIL::Rect& rect,
                                                 const UTIL::Rect& source) const {
    return IMGLIB::GetRequiredClampInputRect(rect, source);
}

void MirroredInputRequest::splitRectToExtendActions(
    const UTIL::Rect& rect, const UTIL::Rect& source,
    std::vector<IMGLIB::ExtendAction>& actions) const {
    IMGLIB::SplitRectToMirrorExtendActions(rect, source, actions);
}

UTIL::Rect MirroredInputRequest::requiredSourceRect(const UTIL::Rect& rect,
                                                    const UTIL::Rect& source) const {
    return IMGLIB::GetRequiredMirroredInputRect(rect, source);
}

}  // namespace Private
}  // namespace TESSERA
