// The input request family: what a task asks of one input in one render,
// and how the input's pixels are made up outside its defined data.
#pragma once

#include <Imath/ImathColor.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "imagebuffer.h"
#include "imglib/extend.h"
#include "imglib/image.h"
#include "rendertask.h"
#include "util/rect.h"

namespace TESSERA {
namespace Private {

// Base: the input asked, the channels and the input's background colour.
class InputRequest {
public:
    InputRequest(RenderTask::Imp* input, uint64_t channels);
    virtual ~InputRequest() = default;

    // Builds the consumer's image of `requested` from the input's finished
    // tile images (which together cover requiredInputRect(requested)). A
    // null buffer when the request needs nothing of the input.
    virtual ImageBuffer buildImage(const UTIL::Rect& requested,
                                   const std::vector<ImageBuffer>& tileImages) const = 0;
    // The rectangle of the input that must be rendered for `requested`.
    virtual UTIL::Rect requiredInputRect(const UTIL::Rect& requested) const = 0;
    uint64_t getChannels() const { return m_channels; }
    RenderTask::Imp* getInput() const { return m_input; }
    const Imath::Color4<float>& getBackgroundColor() const { return m_backgroundColor; }
    virtual IMGLIB::ExtendMethod getMethod() const { return IMGLIB::EXTEND_BACKGROUND; }

    // The request for an ExtendMethod: 1 clamps, 2 mirrors, anything else
    // fills with the background colour (the overscan flag and rectangle are
    // then not kept; with dataOnly, the consumer's images hold only the
    // input's data).
    static std::unique_ptr<InputRequest> create(RenderTask::Imp* input, uint64_t channels,
                                                IMGLIB::ExtendMethod method,
                                                bool extendWithOverscan,
                                                const UTIL::Rect& displayRect, bool dataOnly);

protected:
    // An image of `rect`: the background colour outside the input's data,
    // the tiles' pixels inside. With mayShare, a tile image that has the
    // requested channels and covers rect is handed out as it is (the caller
    // then must not write to it).
    ImageBuffer assemble(const UTIL::Rect& rect, const std::vector<ImageBuffer>& tileImages,
                         bool mayShare) const;
    const UTIL::Region& dataRegion() const;

    RenderTask::Imp* m_input;
    uint64_t m_channels;
    Imath::Color4<float> m_backgroundColor;
};

// Outside the input's data: the input's background colour. With dataOnly
// the consumer reads that colour itself, and its image covers only the
// input's data within what it asked.
class ColorInputRequest : public InputRequest {
public:
    ColorInputRequest(RenderTask::Imp* input, uint64_t channels, bool dataOnly = false);
    ImageBuffer buildImage(const UTIL::Rect& requested,
                           const std::vector<ImageBuffer>& tileImages) const override;
    // requested within the bounding box of the input's data.
    UTIL::Rect requiredInputRect(const UTIL::Rect& requested) const override;

private:
    bool m_dataOnly;
};

// Outside the input's data: pixels made up from the data's edge. Without
// overscan the extension starts at the display rectangle's edge, ignoring
// any data beyond it.
class ExtendingInputRequest : public ColorInputRequest {
public:
    ExtendingInputRequest(RenderTask::Imp* input, uint64_t channels, bool extendWithOverscan,
                          const UTIL::Rect& displayRect);
    ImageBuffer buildImage(const UTIL::Rect& requested,
                           const std::vector<ImageBuffer>& tileImages) const override;
    UTIL::Rect requiredInputRect(const UTIL::Rect& requested) const override;

protected:
    virtual void splitRectToExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                          std::vector<IMGLIB::ExtendAction>& actions) const = 0;
    virtual UTIL::Rect requiredSourceRect(const UTIL::Rect& rect,
                                          const UTIL::Rect& source) const = 0;

private:
    // True when the data (limited to the display rectangle without
    // overscan) holds all of requested; otherwise sets the source rectangle
    // the extension reads from.
    bool needsNoExtension(const UTIL::Rect& requested, UTIL::Rect& source) const;

    bool m_extendWithOverscan;
    UTIL::Rect m_displayRect;
};

class ClampInputRequest : public ExtendingInputRequest {
public:
    using ExtendingInputRequest::ExtendingInputRequest;
    IMGLIB::ExtendMethod getMethod() const override { return IMGLIB::EXTEND_CLAMP; }

protected:
    void splitRectToExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                  std::vector<IMGLIB::ExtendAction>& actions) const override;
    UTIL::Rect requiredSourceRect(const UTIL::Rect& rect, const UTIL::Rect& source) const override;
};

class MirroredInputRequest : public ExtendingInputRequest {
public:
    using ExtendingInputRequest::ExtendingInputRequest;
    IMGLIB::ExtendMethod getMethod() const override { return IMGLIB::EXTEND_MIRROR; }

protected:
    void splitRectToExtendActions(const UTIL::Rect& rect, const UTIL::Rect& source,
                                  std::vector<IMGLIB::ExtendAction>& actions) const override;
    UTIL::Rect requiredSourceRect(const UTIL::Rect& rect, const UTIL::Rect& source) const override;
};

}  // namespace Private
}  // namespace TESSERA
