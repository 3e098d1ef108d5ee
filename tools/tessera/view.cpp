#include "view.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <vector>

namespace fs = std::filesystem;

namespace tessera_cli {
namespace {

// The folder holding the tessera package: the build tree's beside this
// program, or the installed one; empty when Python finds it itself.
std::string packageFolder() {
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) return "";
    const fs::path bin = self.parent_path();
    for (const fs::path& candidate : {bin / "../../python", bin / "../lib/python3/dist-packages",
                                      bin / "../lib/python3.11/dist-packages"})
        if (fs::exists(candidate / "tessera" / "viewer.py"))
            return fs::weakly_canonical(candidate).string();
    return "";
}

}  // namespace

int runViewer(const std::string& graph, int port, std::optional<int> frame,
              const std::string& frames) {
    const std::string code =
        "import sys\n"
        "if sys.argv[1]: sys.path.insert(0, sys.argv[1])\n"
        "from tessera.viewer import main\n"
        "sys.exit(main(sys.argv[2:]))\n";
    std::vector<std::string> args = {
        "python3", "-c", code, packageFolder(), graph, "--port", std::to_string(port)};
    if (frame) args.insert(args.end(), {"--frame", std::to_string(*frame)});
    if (!frames.empty()) args.insert(args.end(), {"--frames", frames});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    ::execv("/usr/bin/python3", argv.data());
    std::cerr << "tessera view: cannot start /usr/bin/python3: " << std::strerror(errno)
              << std::endl;
    return 1;
}

}  // namespace tessera_cli
