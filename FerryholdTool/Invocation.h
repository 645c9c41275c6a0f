// One call of the ferryhold command: the subcommand, its positional arguments and its
// options, checked against what that subcommand accepts.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ferryhold {

struct Invocation {
    std::string command;
    std::vector<std::string> arguments;  // positional, in order
    std::optional<std::string> parent;   // --parent
    std::vector<std::string> omit;       // --omit, in order
    std::vector<std::string> include;    // --include, in order
    bool expandBundles = false;          // --expand-bundles
    bool keepSystem = false;             // --keep-system
    bool json = false;                   // --json
    bool help = false;                   // --help, alone

    // Parses argv[1...]; absent for a wrong call, with the reason in `problem`.
    static std::optional<Invocation> parse(const std::vector<std::string>& argv, std::string* problem);
};

// The usage text, ending in a newline.
const char* usage();

}  // namespace ferryhold
