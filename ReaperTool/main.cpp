// reaper <volume root> <target system version>
//
// Prints, as one XML property list on standard output, the paths of the volume that an
// installation of the target release reaps ("ReapablePaths") and the space they take
// ("ReapableSize"). Standard output is pointed at standard error for the whole
// analysis, so nothing it prints can spoil the document. Exit statuses: 0 printed,
// 1 too few arguments, 2 standard output could not be diverted or restored,
// 3 the analysis gave no answer.
#include <cstdio>
#include <cstring>

#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/PropertyList.h"
#include "Platform/StandardStreams.h"

namespace {

int reaperMain(int argc, char** argv) {
    if (argc < 3) return 1;
    std::string rootPath = argv[1];
    std::string targetVersion = argv[2];

    platform::Error error;
    auto diversion = platform::DivertedStandardOutput::begin(&error);
    if (!diversion) {
        int code = int(error.code);
        fprintf(stderr, "failed to pipe stdout: %d %s", code, strerror(code));
        return 2;
    }
    // Made once standard output is diverted: the analyzer starts the rule-data tool.
    auto analyzer = FHPathAnalyzer::initWithRootPath(rootPath);
    std::optional<uint64_t> size;
    std::optional<FHPathAnalyzer::PathList> paths;
    if (analyzer) paths = analyzer->prunedReaperPathsReturningSize(&size, targetVersion);
    fflush(stdout);
    if (!paths || !size) return 3;

    platform::Array reapable(paths->begin(), paths->end());
    platform::Dictionary result{{"ReapableSize", *size}, {"ReapablePaths", std::move(reapable)}};
    std::string document = platform::plist::toXML(platform::Value(std::move(result)));

    if (!diversion->restore(&error)) {
        int code = int(error.code);
        fprintf(stderr, "failed to unpipe stdout: %d %s", code, strerror(code));
        return 2;
    }
    printf("%s", document.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) { return reaperMain(argc, argv); }
