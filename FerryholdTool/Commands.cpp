#include "FerryholdTool/Commands.h"
#include "FerryholdTool/VolumesCommand.h"

#include <algorithm>
#include <map>

#include "FHPathAnalysis/ConfMigrator/FHSystem.h"
#include "FHPathAnalysis/IncompatibleApplications/FHMigrationIncompatibleApplicationsList.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalysis.h"
#include "FHPathAnalysis/PathAnalyzer/FHPathAnalyzer.h"
#include "Platform/FileSystem.h"
#include "Platform/Framework.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"

namespace ferryhold {

namespace {

using PathList = std::vector<std::string>;

Outcome failed(std::string why) { return Outcome{std::nullopt, std::move(why)}; }

Outcome answered(platform::Value document) { return Outcome{std::move(document), {}}; }

bool isDirectory(const std::string& p) {
    bool directory = false;
    return platform::fs::exists(p, &directory) && directory;
}

// The walks treat a folder they cannot open as a programming error; a person may well
// name one, so it is caught here.
std::optional<std::string> missingFolder(const std::string& root, const std::optional<std::string>& folder) {
    if (!isDirectory(root)) return root + ": no such directory";
    if (folder && !isDirectory(platform::path::appendComponent(root, *folder)))
        return *folder + ": no such folder on " + root;
    return std::nullopt;
}

std::optional<PathList> listOrNone(const PathList& list) {
    if (list.empty()) return std::nullopt;
    return list;
}

platform::Value pathArray(const PathList& paths) { return platform::Value(platform::Array(paths.begin(), paths.end())); }

Outcome userPathsCommand(const Invocation& call) {
    const std::string& root = call.arguments[0];
    if (auto missing = missingFolder(root, call.parent)) return failed(*missing);
    auto analyzer = FHPathAnalyzer::initWithRootPath(root);
    if (!analyzer) return failed(root + ": the volume cannot be analysed");
    auto paths = call.expandBundles
                     ? analyzer->prunedUserPathsWithParentDirectory(call.parent, listOrNone(call.omit), true)
                     : analyzer->prunedUserPathsWithParentDirectory(call.parent, listOrNone(call.omit),
                                                                    listOrNone(call.include));
    if (!paths) return failed(root + ": no system paths found");
    return answered(pathArray(*paths));
}

Outcome childrenCommand(const Invocation& call) {
    const std::string& root = call.arguments[0];
    const std::string& folder = call.arguments[1];
    if (auto missing = missingFolder(root, folder)) return failed(*missing);
    auto analysis = FHPathAnalysis::initWithRootPath(root, true);
    if (!analysis) return failed(root + ": the volume cannot be analysed");
    auto paths = analysis->childrenAtPath(folder, listOrNone(call.omit), !call.keepSystem, call.expandBundles);
    if (!paths) return failed(root + ": no system paths found");
    return answered(pathArray(*paths));
}

// The lists of the framework bundle's resources that incompatible can test against:
// property lists holding an array of incompatible paths.
Outcome incompatibleListsCommand() {
    std::string resources = platform::framework::resourcesPath();
    auto names = platform::fs::contentsOfDirectory(resources);
    if (!names) return failed(resources + ": the framework's resources cannot be read");
    std::vector<std::string> lists;
    for (const auto& name : *names) {
        if (!name.ends_with(".plist")) continue;
        auto list = platform::plist::readFile(platform::path::appendComponent(resources, name));
        const platform::Dictionary* entries = list ? list->dictionary() : nullptr;
        if (entries && entries->findArray(FHMigrationIncompatibleApplicationsList::kIncompatiblePathsKey))
            lists.push_back(name.substr(0, name.size() - 6));
    }
    std::sort(lists.begin(), lists.end());
    return answered(pathArray(lists));
}

Outcome incompatibleCommand(const Invocation& call) {
    if (call.listLists) return incompatibleListsCommand();
    const std::string& root = call.arguments[0];
    const std::string& list = call.arguments[1];
    if (auto missing = missingFolder(root, std::nullopt)) return failed(*missing);
    FHSystem system(root);
    FHMigrationIncompatibleApplicationsList applications;
    if (!applications.prepareIncompatibleApplicationsList(list, system))
        return failed(list + ".plist: the list cannot be read from the framework's resources");
    platform::Dictionary answers;
    for (size_t i = 2; i < call.arguments.size(); ++i)
        answers.set(call.arguments[i], applications.isPathInIncompatibleApplicationsList(call.arguments[i]));
    return answered(platform::Value(std::move(answers)));
}

Outcome sizeCommand(const Invocation& call) {
    const std::string& root = call.arguments[0];
    if (auto missing = missingFolder(root, std::nullopt)) return failed(*missing);
    auto analysis = FHPathAnalysis::initWithRootPath(root, false);
    if (!analysis) return failed(root + ": the volume cannot be analysed");
    PathList paths(call.arguments.begin() + 1, call.arguments.end());
    platform::Dictionary sizes;
    for (const auto& p : paths) sizes.set(p, analysis->sizeForAbsolutePath(p));
    uint64_t total = analysis->sizeForPaths(paths);
    return answered(platform::Value(platform::Dictionary{{"Sizes", std::move(sizes)}, {"TotalSize", total}}));
}

Outcome usageCommand(const Invocation& call) {
    const std::string& root = call.arguments[0];
    if (auto missing = missingFolder(root, std::nullopt)) return failed(*missing);
    auto analysis = FHPathAnalysis::initWithRootPath(root, false);
    if (!analysis) return failed(root + ": the volume cannot be analysed");
    return answered(platform::Value(
        platform::Dictionary{{"UsedSize", analysis->usedSize()}, {"FreeSize", analysis->freeSize()}}));
}

}  // namespace

Outcome run(const Invocation& call) {
    static const std::map<std::string, Outcome (*)(const Invocation&)> commands{
        {"user-paths", userPathsCommand}, {"children", childrenCommand}, {"incompatible", incompatibleCommand},
        {"size", sizeCommand},            {"usage", usageCommand},                {"volumes", volumesCommand},
    };
    return commands.at(call.command)(call);
}

}  // namespace ferryhold
