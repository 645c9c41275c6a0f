// Subcommands of the crateworks inspection tool. Each command file registers itself:
//   static const crateworks::Registration reg{"bom", "bom list FILE [--json] | bom make DIR OUT", bomMain};
// The function receives the arguments after the command word and returns the exit status.
#pragma once

#include <string>
#include <vector>

namespace crateworks {

using CommandMain = int (*)(const std::vector<std::string>& args);

struct Registration {
    Registration(const char* name, const char* usage, CommandMain main);
};

// Prints the usage of every command on standard error and answers 2.
int usage();

}  // namespace crateworks
