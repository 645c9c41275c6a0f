// SIGKILL in the middle of `crateworks download` and `crateworks fetch` (the fault
// server holds the first transfer after 1000 bytes), then the same command again. A killed process writes no resume data, so the next run finds a
// partial file without its state: it starts over rather than trust it, nothing corrupt
// ever sits under the final name, a file already there is untouched by the killed run,
// and the package arrives whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "TestServers.h"
#include "ToolRun.h"
#include "support/TempDir.h"

using downloadtests::FaultServer;
using downloadtests::NginxServer;
using platform::fs::exists;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

using tooltest::md5;

// Equal bytes, without printing a package's worth of them when they differ.
::testing::AssertionResult sameBytes(const std::string& expected, const std::string& actual) {
    if (expected == actual) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected.size() << " bytes, got " << actual.size()
                                         << (actual.size() < 200 ? ": " + actual : std::string());
}

std::vector<std::string> names(const std::string& directory) {
    std::vector<std::string> out;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) out.push_back(entry.path().filename());
    std::sort(out.begin(), out.end());
    return out;
}

class Kill : public ::testing::Test {
protected:
    TempDir dir;
    NginxServer nginx{dir.path()};
    FaultServer faults;
    void SetUp() override { setenv("HOME", dir.path().c_str(), 1); }

    // Starts crateworks with `arguments`, waits until `partial` holds `bytes` bytes (the
    // fault server's /stall-once/ then sends nothing more), and kills it with SIGKILL.
    ::testing::AssertionResult killWhenWritten(const std::vector<std::string>& arguments, const std::string& partial,
                                               off_t bytes) {
        auto null = platform::fs::File::open("/dev/null", {.access = platform::fs::OpenOptions::Access::Write});
        if (!null) return ::testing::AssertionFailure() << "no /dev/null";
        std::string tool = tooltest::binary("crateworks");
        std::vector<char*> argv{const_cast<char*>(tool.c_str())};
        for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            dup2(null->descriptor(), STDOUT_FILENO);
            dup2(null->descriptor(), STDERR_FILENO);
            execv(tool.c_str(), argv.data());
            _exit(127);
        }
        struct stat st {};
        for (int i = 0; i < 1000 && !(stat(partial.c_str(), &st) == 0 && st.st_size == bytes); ++i) usleep(10'000);
        bool reached = st.st_size == bytes;
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
        if (!reached) return ::testing::AssertionFailure() << partial << " never held " << bytes << " bytes";
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
            return ::testing::AssertionFailure() << "not killed: status " << status;
        return ::testing::AssertionSuccess();
    }

    // The same download of /stall-once/out.bin run again after a kill: it completes, leaves
    // nothing beside DEST, and (its resume state being gone or unusable) does not trust the
    // partial file: the second request asks for the body from byte 0.
    void expectRerunStartsOver(const std::string& dest) {
        auto run = tooltest::run("crateworks", {"download", faults.url("/stall-once/out.bin"), dest}, dir / "stderr");
        EXPECT_EQ(0, run.status) << run.err;
        EXPECT_TRUE(sameBytes(FaultServer::body(1), readFile(dest)));
        EXPECT_FALSE(exists(dest + ".partial"));
        EXPECT_FALSE(exists(dest + ".partialState"));
        auto heads = faults.requests();
        ASSERT_EQ(2u, heads.size());
        EXPECT_EQ(std::string::npos, heads[1].find("Range:")) << heads[1];
    }
};

}  // namespace

TEST_F(Kill, DownloadKilledMidwayLeavesTheEarlierFileAndARerunBringsItWhole) {
    std::string dest = dir / "out.bin";
    writeFile(dest, "the earlier out.bin\n");
    ASSERT_TRUE(killWhenWritten({"download", faults.url("/stall-once/out.bin"), dest}, dest + ".partial", 1000));
    EXPECT_EQ("the earlier out.bin\n", readFile(dest));
    // No state survives a SIGKILL: the partial file is all there is.
    EXPECT_FALSE(exists(dest + ".partialState"));

    expectRerunStartsOver(dest);
}

TEST_F(Kill, AResumeStateCutShortByAKillIsNotTrusted) {
    // A kill while the state file was being written leaves part of it: the next run
    // finds no resume data in it and starts over.
    std::string dest = dir / "out.bin";
    ASSERT_TRUE(killWhenWritten({"download", faults.url("/stall-once/out.bin"), dest}, dest + ".partial", 1000));
    writeFile(dest + ".partialState", "bplist00\xd1\x01\x02");
    expectRerunStartsOver(dest);
}

TEST_F(Kill, FetchKilledMidwayKeepsWhatIsThereAndARerunBringsThePackageWhole) {
    std::string body = FaultServer::body(1);
    std::string root = nginx.root() + "/files/killed";
    ASSERT_TRUE(tooltest::writeOnePackageProduct(root, "com.example.killed", faults.url("/stall-once/stall"),
                                                 "com.example.stall", body));
    std::string url = nginx.url("/files/killed/");
    std::string dest = dir / "dest";
    writeFile(dest + "/stall", "an older package\n");

    ASSERT_TRUE(killWhenWritten({"fetch", url, dest}, dest + "/stall.partial", 1000));
    EXPECT_EQ("an older package\n", readFile(dest + "/stall"));
    EXPECT_FALSE(exists(dest + "/stall.partialState"));

    auto run = tooltest::run("crateworks", {"fetch", url, dest}, dir / "stderr");
    EXPECT_EQ(0, run.status) << run.out << run.err;
    EXPECT_EQ("fetched\tcom.example.stall\tstall\n", run.out);
    EXPECT_TRUE(sameBytes(body, readFile(dest + "/stall")));
    EXPECT_EQ(std::vector<std::string>{"stall"}, names(dest));
    size_t fromZero = 0;
    for (const auto& head : faults.requests()) fromZero += head.find("Range:") == std::string::npos;
    EXPECT_EQ(2u, fromZero);
}
