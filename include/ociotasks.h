/// @file
/// Colour management through OpenColorIO: conversions between the colour
/// spaces it knows without a configuration, and tasks that run any
/// OpenColorIO processor or transform. The only public header that includes
/// OpenColorIO's; include it where these are used.
#pragma once

#include <OpenColorIO/OpenColorIO.h>

#include <string>
#include <vector>

#include "rendertask.h"
#include "tessera_export.h"

namespace TESSERA {

/// OpenColorIO: the processor (or the one made for the transform) is shared
/// by every tile.
TESSERA_API TaskPtr createOCIOProcessorTask(const std::string& name, float sampleRate,
                                            OCIO_NAMESPACE::ConstProcessorRcPtr processor,
                                            TaskPtr input);
/// The colour spaces OpenColorIO knows without a configuration: "lin_rec709"
/// (linear sRGB / Rec.709 primaries), "srgb", "rec709" (BT.1886 video),
/// "acescg", "aces2065-1", "acescc", "acescct", "logc" (ARRI LogC EI800,
/// wide gamut), "slog3" (Sony S-Log3, S-Gamut3.Cine), "log3g10" (RED, wide
/// gamut), "vlog" (Panasonic V-Log, V-Gamut), "clog3" (Canon Log 3, Cinema
/// Gamut).
TESSERA_API std::vector<std::string> builtinColorSpaces();
/// Converts between two of those spaces through ACES2065-1. With unpremultiply
/// the conversion sees straight colour (divided by alpha, multiplied back
/// after), as non-linear encodings need. Unknown names throw
/// std::invalid_argument naming the task and the name.
///@{
TESSERA_API TaskPtr createColorSpaceTask(const std::string& name, float sampleRate,
                                         const std::string& from, const std::string& to,
                                         bool unpremultiply, TaskPtr input);
TESSERA_API TaskPtr createOCIOTransformTask(const std::string& name, float sampleRate,
                                            OCIO_NAMESPACE::ConstTransformRcPtr transform,
                                            OCIO_NAMESPACE::TransformDirection direction,
                                            TaskPtr input);
///@}

}  // namespace TESSERA
