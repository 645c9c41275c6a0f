// crateworks verify PATH: checks any archive against its own records (see
// VerifyCommand.h) and prints "verified", or names what failed first (exit 1).
#include "CrateworksTool/VerifyCommand.h"

#include <fmt/format.h>

#include "CommandLine/StandardOutput.h"
#include "CommandLine/Text.h"
#include "CrateworksCore/Package_API/Archive/CWArchiveSignature.h"
#include "CrateworksTool/Command.h"
#include "Platform/FileSystem.h"

namespace crateworks {

std::optional<std::string> contentsFailure(CWArchive& archive) {
    platform::Error error;
    auto signatures = archive.archiveSignatures();
    if (signatures && !signatures->empty() && !signatures->front()->verifySignedDataReturningError(&error))
        return "the signature does not match: " + error.description();
    if (archive.verifyReturningError(&error)) return std::nullopt;
    const std::string* entry = error.userInfo.findString(platform::kFilePathErrorKey);
    const std::string* reason = error.userInfo.findString(platform::kFailureReasonKey);
    if (entry && reason) return fmt::format("{}: {}", commandline::escapedText(*entry), *reason);
    if (entry) return fmt::format("{}: damaged", commandline::escapedText(*entry));
    return error.description();
}

namespace {

int verify(const std::string& path) {
    if (!platform::fs::existsNoFollow(path)) {
        fmt::print(stderr, "crateworks verify: {}: no such file or directory\n", commandline::escapedText(path));
        return 1;
    }
    auto archive = CWArchive::archiveWithPath(path);
    if (!archive) {
        fmt::print(stderr, "crateworks verify: {}: not an archive\n", commandline::escapedText(path));
        return 1;
    }
    auto failure = contentsFailure(*archive);
    archive->closeArchive();
    if (failure) {
        fmt::print(stderr, "crateworks verify: {}: {}\n", commandline::escapedText(path), *failure);
        return 1;
    }
    commandline::outLine("verified");
    return 0;
}

}  // namespace

void addVerifyCommand(CLI::App& app) {
    auto path = std::make_shared<std::string>();
    CLI::App* command =
        commandline::addCommand(app, "verify", "Checks an archive's or signed folder's contents against its records");
    command->add_option("PATH", *path, "A XAR archive or a folder")->required();
    commandline::onRun(command, [path] { return verify(*path); });
}

}  // namespace crateworks
