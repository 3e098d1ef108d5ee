// IMGLIB raw dumps: an image's rows in a file, restored bit for bit.
#pragma once

#include <string>

#include "imglib/image.h"
#include "tessera_export.h"

namespace IMGLIB {

// Writes the image's rows to a new file at path. The file is created
// exclusively (an existing file or a symbolic link at path is an error) and
// readable by its owner only. A failed write removes the partial file.
// An image without pixels writes only the header and returns WARNING_EMPTY_IMAGE.
TESSERA_API int WriteRAW(const std::string& path, const Image* image);

// Reads a dump made by WriteRAW into image, whose channels and bounds must be
// those of the dumped image and whose memory is already there. A file that is
// not a dump, is truncated or damaged, or holds another image is an error
// (ERROR_FILE_FORMAT, ERROR_FILE_MISMATCH) and leaves a message naming it.
TESSERA_API int ReadRAW(const Image* image, const std::string& path);

}  // namespace IMGLIB
