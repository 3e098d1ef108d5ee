// `tessera info FILE... [--stats]`: what files hold, and what Tessera reads
// of them.
#pragma once

#include <ostream>
#include <string>

namespace tessera_cli {

// Prints the file's parts, views, channels, windows, compression and
// attributes; with `statistics`, each channel's minimum, maximum, mean and
// count of NaN and infinite values as a render reads them. Throws what
// reading the file throws.
void describeFile(std::ostream& out, const std::string& path, bool statistics);

}  // namespace tessera_cli
