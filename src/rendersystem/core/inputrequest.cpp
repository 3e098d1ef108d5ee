#include "rendersystem/core/inputrequest.h"

#include "imglib/pixels.h"
#include "private/imglibcall.h"
#include "rendersystem/core/rendertask_imp.h"

namespace TESSERA {
namespace Private {

InputRequest::InputRequest(RenderTask::Imp* input, uint64_t channels)
    : m_input(input), m_channels(channels), m_backgroundColor(input->m_backgroundColor) {}

std::unique_ptr<InputRequest> InputRequest::create(RenderTask::Imp* input, uint64_t channels,
                                                   IMGLIB::ExtendMethod method,
                                                   bool extendWithOverscan,
                                                   const UTIL::Rect& displayRect, bool dataOnly) {
    switch (method) {
        case IMGLIB::EXTEND_CLAMP:
            return std::make_unique<ClampInputRequest>(input, channels, extendWithOverscan,
                                                       displayRect);
        case IMGLIB::EXTEND_MIRROR:
            return std::make_unique<MirroredInputRequest>(input, channels, extendWithOverscan,
                                                          displayRect);
        default:
            return std::make_unique<ColorInputRequest>(input, channels, dataOnly);
    }
}

const UTIL::Region& InputRequest::dataRegion() const {
    return m_input->m_definedOutputDataRegion;
}

ImageBuffer InputRequest::assemble(const UTIL::Rect& rect,
                                   const std::vector<ImageBuffer>& tileImages,
                                   bool mayShare) const {
    // One tile image that already is the image asked for: no copy.
    if (mayShare && tileImages.size() == 1 && tileImages[0].getChannels() == m_channels &&
        tileImages[0].getBounds().contains(rect) && dataRegion().contains(rect))
        return tileImages[0];

    ImageBuffer image(m_channels, rect,
                      tileImages.size() == 1 ? "Temporary Image From Single Tiles"
                                             : "Temporary Image From Many Tiles");
    // Unlocked before the return: a scoper must not outlive a handle that
    // may be moved out.
    {
        ImageBuffer_LockScoper lock(image);
        const IMGLIB::Image* out = image.getImage();
        const std::string& name = m_input->m_nameAtTime;
        // Channels the input does not define are its background colour
        // everywhere; the others only outside its data.
        const bool undefinedChannels = (m_channels & ~m_input->m_definedOutputChannels) != 0;
        fillOutside(out, undefinedChannels ? UTIL::Region() : dataRegion(), m_backgroundColor,
                    name);
        for (const ImageBuffer& tile : tileImages) {
            if (!tile.getBounds().intersects(rect)) continue;
            ImageBuffer source = tile;
            ImageBuffer_LockScoper tileLock(source);
            checkImglib(IMGLIB::CopyChannelsInto(out, source.getImage()), name);
        }
    }
    return image;
}

ColorInputRequest::ColorInputRequest(RenderTask::Imp* input, uint64_t channels, bool dataOnly)
    : InputRequest(input, channels), m_dataOnly(dataOnly) {}

UTIL::Rect ColorInputRequest::requiredInputRect(const UTIL::Rect& requested) const {
    return requested.intersection(dataRegion().boundingBox());
}

ImageBuffer ColorInputRequest::buildImage(const UTIL::Rect& requested,
                                          const std::vector<ImageBuffer>& tileImages) const {
    // Nothing of the data is asked for: the consumer sees a missing input,
    // which stands for the input's background colour.
    const UTIL::Rect required = requiredInputRect(requested);
    if (required.isNull()) return ImageBuffer();
    return assemble(m_dataOnly ? required : requested, tileImages, true);
}

}  // namespace Private
}  // namespace TESSERA
