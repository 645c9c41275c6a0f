// One call of the ferryhold command: the subcommand, its positional arguments and its
// options, as the command line gives them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine/Parser.h"

namespace ferryhold {

struct Invocation {
    std::string command;
    std::vector<std::string> arguments;  // positional, in order (ROOT first)
    std::optional<std::string> parent;   // --parent
    std::vector<std::string> omit;       // --omit, in order
    std::vector<std::string> include;    // --include, in order
    bool expandBundles = false;          // --expand-bundles
    bool keepSystem = false;             // --keep-system
    bool json = false;                   // --json
    bool listLists = false;              // incompatible --lists
    std::optional<std::string> target;   // volumes --target
    std::optional<uint64_t> requiredSize;  // volumes --required-size
};

// The ferryhold command line. Parsing it fills `call`; the action of the chosen
// subcommand runs `answer` with it (after checking what CLI11 cannot, such as an
// absolute ROOT).
std::unique_ptr<CLI::App> makeApp(Invocation& call, std::function<int(const Invocation&)> answer);

}  // namespace ferryhold
