// Helpers of the trust tests: archives made and signed with the crateworks tool, and
// their trust level as a product judges it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Trust/CWArchiveTrustJudgement.h"
#include "support/TempDir.h"
#include "support/TestPKI.h"

namespace trusttest {

using testsupport::shellQuote;
// "crateworks ARGS" with standard output only, or with both streams.
std::string runTool(const std::string& args, int* status = nullptr);
std::string runToolWithErrors(const std::string& args, int* status = nullptr);

// An unsigned archive of a small tree, at `directory`/plain.xar.
std::string makeArchive(const std::string& directory);
// `input` signed by `leaf` (its key and certificate) with `more` certificates after it,
// written to `directory`/`name`. The test fails when the tool does.
std::string signArchive(const std::string& directory, const std::string& input, const testpki::TestCertificate& leaf,
                        const std::vector<testpki::TestCertificate>& more, const std::optional<std::string>& date = {},
                        const std::string& name = "signed.xar");
std::string signArchive(const std::string& directory, const std::string& input, const testpki::Chain& chain,
                        const std::optional<std::string>& date = {}, const std::string& name = "signed.xar");

// The judgement of the archive at `path` (lowest accepted level 0).
crateworks::CWArchiveTrustJudgement judge(const std::string& path);
int32_t levelOf(const std::string& path);
// ISO 8601 of now plus `seconds`.
std::string isoFromNow(long seconds);

}  // namespace trusttest
