#include "TrustTestSupport.h"

#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"
#include "support/TempDir.h"

namespace trusttest {

std::string runTool(const std::string& args, int* status) {
    return testsupport::runCommand(std::string(FERRYHOLD_BINARY_DIR) + "/crateworks " + args, status);
}

std::string runToolWithErrors(const std::string& args, int* status) { return runTool(args + " 2>&1", status); }

std::string makeArchive(const std::string& directory) {
    testsupport::writeFile(directory + "/tree/pkg/readme.txt", "a package to sign\n");
    testsupport::writeFile(directory + "/tree/pkg/data/blob.bin", std::string(5000, 'x'));
    std::string archive = directory + "/plain.xar";
    int status = -1;
    std::string output =
        runToolWithErrors("xar create " + shellQuote(archive) + " " + shellQuote(directory + "/tree"), &status);
    EXPECT_EQ(0, status) << output;
    return archive;
}

std::string signArchive(const std::string& directory, const std::string& input, const testpki::TestCertificate& leaf,
                        const std::vector<testpki::TestCertificate>& more, const std::optional<std::string>& date,
                        const std::string& name) {
    std::string output = directory + "/" + name;
    leaf.key.writePEM(output + ".key");
    leaf.writePEM(output + ".leaf.pem");
    std::string args = "xar sign " + shellQuote(input) + " " + shellQuote(output) + " --key " +
                       shellQuote(output + ".key") + " --cert " + shellQuote(output + ".leaf.pem");
    for (size_t i = 0; i < more.size(); ++i) {
        std::string path = output + "." + std::to_string(i) + ".pem";
        more[i].writePEM(path);
        args += " --cert " + shellQuote(path);
    }
    if (date) args += " --date " + shellQuote(*date);
    int status = -1;
    std::string messages = runToolWithErrors(args, &status);
    EXPECT_EQ(0, status) << messages;
    return output;
}

std::string signArchive(const std::string& directory, const std::string& input, const testpki::Chain& chain,
                        const std::optional<std::string>& date, const std::string& name) {
    return signArchive(directory, input, chain.leaf, {chain.intermediate}, date, name);
}

crateworks::CWArchiveTrustJudgement judge(const std::string& path) {
    return crateworks::CWArchiveTrustJudgement::judgeArchive(crateworks::CWArchive::archiveWithPath(path), 0);
}

int32_t levelOf(const std::string& path) { return judge(path).trustLevel; }

std::string isoFromNow(long seconds) {
    return platform::Date{platform::Date::now().secondsSince1970 + double(seconds)}.iso8601();
}

}  // namespace trusttest
