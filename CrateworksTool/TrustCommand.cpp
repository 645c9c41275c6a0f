// crateworks trust: places the signature of an archive or signed folder on the trust
// ladder, with the maker's root tried first, as a product judges its package. After
// the answer one line on standard error says whether the contents verify, so that a
// folder changed after signing is never judged in silence.
#include <fmt/format.h>
#include <optional>
#include <string>

#include "CommandLine/StandardOutput.h"
#include "CommandLine/Text.h"
#include "CrateworksCore/Package_API/Archive/CWArchive.h"
#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"
#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "CrateworksTool/Command.h"
#include "CrateworksTool/ToolSupport.h"
#include "CrateworksTool/VerifyCommand.h"
#include "Platform/FileSystem.h"

namespace {

using crateworks::CWTrust;
namespace tool = crateworks::tool;

constexpr int kBelowMinimumStatus = 3;

int judge(const std::string& path, std::optional<int32_t> minimum) {
    std::string shown = commandline::escapedText(path);
    if (!platform::fs::existsNoFollow(path)) {
        fmt::print(stderr, "crateworks trust: {}: no such file or directory\n", shown);
        return 1;
    }
    auto archive = crateworks::CWArchive::archiveWithPath(path);
    if (!archive) {
        fmt::print(stderr, "crateworks trust: {}: not an archive\n", shown);
        return 1;
    }
    // Judging closes the archive; the contents are checked from a fresh one after.
    auto judgement = crateworks::CWArchiveTrustJudgement::judgeArchive(archive, minimum.value_or(0));
    if (judgement.signatureError)
        fmt::print(stderr, "crateworks trust: {}: {}\n", shown, judgement.signatureError->description());
    commandline::outLine(
        fmt::format("{}\t{}", CWTrust::stringForTrustLevel(judgement.trustLevel).value_or("?"), judgement.trustLevel));
    if (judgement.certificateChain)
        for (const auto& certificate : *judgement.certificateChain)
            commandline::outLine(commandline::escapedText(certificate->subject()));
    // The answer reaches its reader before the note on the contents.
    commandline::StandardOutput::shared().flush();
    auto again = crateworks::CWArchive::archiveWithPath(path);
    auto failure = again ? crateworks::contentsFailure(*again) : std::optional<std::string>("cannot be opened again");
    if (again) again->closeArchive();
    if (failure) fmt::print(stderr, "crateworks trust: {}: contents do not verify: {}\n", shown, *failure);
    else fmt::print(stderr, "crateworks trust: {}: contents verified\n", shown);
    return judgement.passes ? 0 : kBelowMinimumStatus;
}

int listLevels() {
    for (int32_t level : tool::trustLevels())
        commandline::outLine(fmt::format("{}\t{}\t{}", level, CWTrust::stringForTrustLevel(level).value_or(""),
                                         tool::shortTrustLevelName(level)));
    return 0;
}

}  // namespace

void crateworks::addTrustCommand(CLI::App& app) {
    struct Options {
        std::string path;
        std::string minimum;
        bool levels = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = commandline::addCommand(app, "trust", "Places an archive's signature on the trust ladder");
    auto* path = command->add_option("PATH", options->path, "A XAR archive or a signed folder");
    auto* levels = command->add_flag("--levels", options->levels, "List every trust level: number, name, short name");
    command->add_option("-m,--min", options->minimum, "Exit 3 below this level (a number, a name or a short name)")
        ->type_name("LEVEL")
        ->check(tool::checkTrustLevel)
        ->excludes(levels);
    path->excludes(levels);
    commandline::onRun(command, [command, options] {
        if (options->levels) return listLevels();
        if (options->path.empty()) return commandline::wrongCall(command, "PATH or --levels is required");
        auto minimum = options->minimum.empty() ? std::nullopt : tool::parseTrustLevel(options->minimum);
        return judge(options->path, minimum);
    });
}
