// Command chains: a graph written as a line of the command, each verb an
// operation's declaration.
//
//   tessera plate.exr --resize size=1920,1080 --gain gain=1.2,1.2,1.2,1 -o out.exr
//   tessera fg.exr bg.exr --over -o comp.exr
//
// Images go on a stack: a file name pushes the file, a verb takes as many
// images from the top as its operation has required inputs (the earliest
// pushed is its first input) and pushes its result, `-o FILE` writes the
// top image. A verb is an operation's name (or older name) or one of
// composite's operators; KEY=VALUE after it sets a parameter (VALUE is
// JSON, a comma list of numbers, or a bare word), after `-o` a field of the
// output (compression=zip, dataType=float, channels=all, ...).
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace tessera_cli {

// A chain that cannot make a graph; the message names the argument.
class ChainError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The graph file (JSON, indented) that the chain's arguments build; `frames`
// (a frame list, or empty for a still) goes into it. Throws ChainError.
std::string chainGraph(const std::vector<std::string>& arguments, const std::string& frames);

// Whether an argument starts a verb the chain knows ("--blur", "--over").
bool isChainVerb(const std::string& argument);

// A graph file's text as people write them: one node or output per line.
// `nodes` and `outputs` are JSON arrays (text); `frames` may be empty.
std::string graphText(const std::string& nodes, const std::string& outputs,
                      const std::string& frames);

// The help of one verb, from its operation's declaration.
std::string chainVerbHelp(const std::string& verb);

// The chain's part of `tessera --help`: its form and its verbs.
std::string chainHelp();

}  // namespace tessera_cli
