// crateworks: inspects and makes the package library's files (BOM files, receipts,
// archives) from the command line.
#include <cstdio>
#include <map>
#include <string>

#include "CrateworksTool/Command.h"

namespace crateworks {

namespace {
struct Entry {
    std::string usage;
    CommandMain main;
};
std::map<std::string, Entry>& commands() {
    static std::map<std::string, Entry> table;
    return table;
}
}  // namespace

Registration::Registration(const char* name, const char* usage, CommandMain main) {
    commands()[name] = Entry{usage, main};
}

int usage() {
    fprintf(stderr, "usage:\n");
    for (const auto& [name, entry] : commands()) fprintf(stderr, "  crateworks %s\n", entry.usage.c_str());
    return 2;
}

}  // namespace crateworks

int main(int argc, char** argv) {
    if (argc < 2) return crateworks::usage();
    auto it = crateworks::commands().find(argv[1]);
    if (it == crateworks::commands().end()) return crateworks::usage();
    std::vector<std::string> args(argv + 2, argv + argc);
    return it->second.main(args);
}
