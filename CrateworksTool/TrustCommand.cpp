// crateworks trust: places the signature of an archive or signed folder on the trust
// ladder, with the maker's root tried first, as a product judges its package.
#include <fmt/format.h>
#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"
#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"
#include "CrateworksCore/Package_API/Trust/CWTrust.h"
#include "CrateworksTool/Command.h"
#include "CrateworksTool/ToolSupport.h"
#include "Platform/FileSystem.h"

namespace {

using crateworks::CWTrust;

constexpr int kBelowMinimumStatus = 3;

int judge(const std::string& path, std::optional<int32_t> minimum) {
    if (!platform::fs::existsNoFollow(path)) {
        fmt::print(stderr, "crateworks trust: {}: no such file or directory\n", path);
        return 1;
    }
    auto archive = crateworks::CWArchive::archiveWithPath(path);
    if (!archive && !platform::fs::readFile(path)) {
        fmt::print(stderr, "crateworks trust: {}: cannot be read\n", path);
        return 1;
    }
    auto judgement = crateworks::CWArchiveTrustJudgement::judgeArchive(archive, minimum.value_or(0));
    if (judgement.signatureError)
        fmt::print(stderr, "crateworks trust: {}: {}\n", path, judgement.signatureError->description());
    fmt::print("{}\t{}\n", CWTrust::stringForTrustLevel(judgement.trustLevel).value_or("?"), judgement.trustLevel);
    if (judgement.certificateChain)
        for (const auto& certificate : *judgement.certificateChain) fmt::print("{}\n", certificate->subject());
    return judgement.passes ? 0 : kBelowMinimumStatus;
}

int trustMain(const std::vector<std::string>& args) {
    std::optional<std::string> path;
    std::optional<int32_t> minimum;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--min" && i + 1 < args.size()) {
            minimum = crateworks::tool::parseTrustLevel(args[++i]);
            if (!minimum) return crateworks::usage();
        } else if (!path && args[i].rfind("--", 0) != 0) {
            path = args[i];
        } else {
            return crateworks::usage();
        }
    }
    if (!path) return crateworks::usage();
    return judge(*path, minimum);
}

const crateworks::Registration registration{"trust", "trust PATH [--min LEVEL]", trustMain};

}  // namespace
