// tessera view: the graph's output in the browser, served by the Python
// package's viewer.
#pragma once

#include <optional>
#include <string>

namespace tessera_cli {

// Replaces this process with the viewer's server; returns only on failure.
// `frames` (a frame list, as tessera render takes) limits the frame slider.
int runViewer(const std::string& graph, int port, std::optional<int> frame,
              const std::string& frames);

}  // namespace tessera_cli
