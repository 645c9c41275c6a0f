// crateworks download: side files, resume, HTTP errors, signals, DEST kinds, https and usage.
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/URL.h"
#include "TestServers.h"
#include "support/TempDir.h"

using downloadtests::FaultServer;
using downloadtests::NginxServer;
using platform::fs::exists;
using platform::fs::File;
using platform::fs::OpenOptions;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

const std::string kTool = std::string(FERRYHOLD_BINARY_DIR) + "/crateworks";

class DownloadCommandTests : public ::testing::Test {
protected:
    TempDir dir;
    NginxServer nginx{dir.path()};
    FaultServer faults;

    void SetUp() override { setenv("HOME", dir.path().c_str(), 1); }

    // Runs the command; standard error goes to `err`.
    int run(const std::vector<std::string>& args, std::string* err = nullptr) {
        std::string command = testsupport::shellQuote(kTool) + " download";
        for (const auto& a : args) command += " " + testsupport::shellQuote(a);
        int status = 0;
        testsupport::runCommand(command + " 2>" + testsupport::shellQuote(dir / "stderr"), &status);
        if (err) *err = readFile(dir / "stderr");
        return status;
    }
    bool sideFiles(const std::string& dest) { return exists(dest + ".partial") || exists(dest + ".partialState"); }
};

size_t lines(const std::string& s) { return size_t(std::count(s.begin(), s.end(), '\n')); }

}  // namespace

TEST_F(DownloadCommandTests, CompleteTransferLeavesOnlyTheDestination) {
    writeFile(dir / "out.bin", "older contents");
    std::string err;
    EXPECT_EQ(run({nginx.url("/redirect"), dir / "out.bin"}, &err), 0);
    EXPECT_EQ(readFile(dir / "out.bin"), "small file body\n");
    EXPECT_FALSE(sideFiles(dir / "out.bin"));
    EXPECT_EQ(err, "");  // standard error is not a terminal: no progress line

    writeFile(nginx.root() + "/files/empty", "");
    EXPECT_EQ(run({nginx.url("/files/empty"), dir / "empty"}), 0);
    EXPECT_TRUE(exists(dir / "empty"));
    EXPECT_EQ(readFile(dir / "empty"), "");
}

TEST_F(DownloadCommandTests, HTTPErrorsFailWithOneLineAndNoFiles) {
    for (auto [path, status] : {std::pair{"/missing", "404"}, {"/forbidden", "403"}, {"/auth/secret.txt", "401"}}) {
        std::string err;
        EXPECT_EQ(run({nginx.url(path), dir / "out"}, &err), 1) << path;
        EXPECT_EQ(lines(err), 1u) << err;
        EXPECT_NE(err.find("\"" + nginx.url(path) + "\""), std::string::npos) << err;
        EXPECT_NE(err.find(status), std::string::npos) << err;
        EXPECT_FALSE(exists(dir / "out"));
        if (std::string(status) == "404") {
            EXPECT_NE(err.find(": HTTP 404 Not Found\n"), std::string::npos) << err;
        }
        EXPECT_FALSE(sideFiles(dir / "out"));
    }
    writeFile(dir / ".netrc", "machine 127.0.0.1 login crate password works\n");
    EXPECT_EQ(run({nginx.url("/auth/secret.txt"), dir / "secret"}), 0);
    EXPECT_EQ(readFile(dir / "secret"), "secret body\n");
}

TEST_F(DownloadCommandTests, ShortBodyIsKeptAsPartialAndARerunCompletes) {
    std::string dest = dir / "out";
    std::string err;
    EXPECT_EQ(run({faults.url("/short"), dest}, &err), 1);
    EXPECT_EQ(lines(err), 1u);
    EXPECT_FALSE(exists(dest));
    EXPECT_EQ(readFile(dest + ".partial").size(), FaultServer::kBodySize / 2);
    EXPECT_TRUE(exists(dest + ".partialState"));

    EXPECT_EQ(run({faults.url("/short"), dest}), 0);
    EXPECT_EQ(readFile(dest), FaultServer::body(1));
    EXPECT_FALSE(sideFiles(dest));
    auto heads = faults.requests();
    ASSERT_EQ(heads.size(), 2u);
    EXPECT_NE(heads[1].find("Range: bytes=150000-"), std::string::npos);
}

TEST_F(DownloadCommandTests, StalePartialIsWrittenAgainFromZero) {
    std::string dest = dir / "out";
    writeFile(dest + ".partial", std::string(5000, 'x'));
    EXPECT_EQ(run({faults.url("/changing"), dest}), 0);
    EXPECT_EQ(readFile(dest), FaultServer::body(1));
    EXPECT_EQ(faults.requests()[0].find("Range:"), std::string::npos);
}

TEST_F(DownloadCommandTests, SignalsKeepBothSideFilesAndARerunResumesWithARange) {
    // Whoever stops the transfer (Ctrl-C, a timeout, a logout), its resume data stays.
    for (auto [signal, expected] : {std::pair{SIGINT, 130}, {SIGTERM, 143}, {SIGHUP, 129}}) {
        std::string dest = dir / ("out" + std::to_string(signal));
        auto null = File::open("/dev/null", {.access = OpenOptions::Access::Write});
        ASSERT_TRUE(null);
        size_t before = faults.requests().size();
        pid_t pid = fork();
        if (pid == 0) {
            dup2(null->descriptor(), STDERR_FILENO);
            execl(kTool.c_str(), "crateworks", "download", faults.url("/stall").c_str(), dest.c_str(), (char*)nullptr);
            _exit(127);
        }
        struct stat st {};
        for (int i = 0; i < 400 && !(stat((dest + ".partial").c_str(), &st) == 0 && st.st_size == 1000); ++i)
            usleep(10'000);
        ASSERT_EQ(st.st_size, 1000);
        kill(pid, signal);
        int status = 0;
        waitpid(pid, &status, 0);
        ASSERT_TRUE(WIFEXITED(status)) << signal;
        EXPECT_EQ(WEXITSTATUS(status), expected);
        EXPECT_TRUE(exists(dest + ".partial"));
        EXPECT_TRUE(exists(dest + ".partialState"));
        EXPECT_FALSE(exists(dest));

        EXPECT_EQ(run({faults.url("/stall"), dest}), 0);
        EXPECT_EQ(readFile(dest), FaultServer::body(1));
        EXPECT_FALSE(sideFiles(dest));
        auto heads = faults.requests();
        ASSERT_EQ(heads.size(), before + 2);
        EXPECT_NE(heads.back().find("Range: bytes=1000-"), std::string::npos) << heads.back();
    }
}

TEST_F(DownloadCommandTests, ADirectoryOrADashAsDestination) {
    std::filesystem::create_directories(dir / "into");
    EXPECT_EQ(run({nginx.url("/files/small.bin"), dir / "into"}), 0);
    EXPECT_EQ(readFile(dir / "into/small.bin"), "small file body\n");
    EXPECT_FALSE(sideFiles(dir / "into/small.bin"));
    // A URL whose path ends in "/" names nothing to save: refused before any request.
    size_t before = faults.requests().size();
    std::string err;
    EXPECT_EQ(run({faults.url("/"), dir / "into"}, &err), 1);
    EXPECT_EQ(lines(err), 1u) << err;
    EXPECT_EQ(faults.requests().size(), before);

    // A plain local path is a file URL; "-" is standard output.
    writeFile(dir / "source file", "local body");
    std::string out = testsupport::runCommand("cd " + testsupport::shellQuote(dir.path()) + " && " +
                                              testsupport::shellQuote(kTool) + " download 'source file' -");
    EXPECT_EQ("local body", out);
    out = testsupport::runCommand(testsupport::shellQuote(kTool) + " download " +
                                  testsupport::shellQuote(nginx.url("/files/small.bin")) + " - 2>/dev/null");
    EXPECT_EQ("small file body\n", out);
    EXPECT_FALSE(exists(dir / "-"));
}

TEST_F(DownloadCommandTests, HTTPSWithTheTestAuthorityOnly) {
    EXPECT_EQ(run({nginx.httpsURL("/files/small.bin"), dir / "ok", "--cacert", nginx.caFile()}), 0);
    EXPECT_EQ(readFile(dir / "ok"), "small file body\n");
    std::string err;
    EXPECT_EQ(run({nginx.httpsURL("/files/small.bin"), dir / "bad", "--cacert", nginx.otherCAFile()}, &err), 1);
    EXPECT_EQ(lines(err), 1u);
    EXPECT_FALSE(exists(dir / "bad"));
}

TEST_F(DownloadCommandTests, FileURLsAndWrongCalls) {
    writeFile(dir / "a source", "file body");
    std::string url = platform::URL::fileURL(dir / "a source").absoluteString();
    ASSERT_NE(url.find("%20"), std::string::npos);
    writeFile(dir / "copy.partial", "stale");
    writeFile(dir / "copy.partialState", "not resume data");
    EXPECT_EQ(run({url, dir / "copy"}), 0);
    EXPECT_EQ(readFile(dir / "copy"), "file body");
    EXPECT_FALSE(sideFiles(dir / "copy"));

    std::string err;
    EXPECT_EQ(run({url}, &err), 2);
    EXPECT_NE(err.find("Usage: crateworks "), std::string::npos);
    EXPECT_EQ(run({url, dir / "x", "--cacert"}), 2);
    EXPECT_EQ(run({url, dir / "x", "--bogus"}), 2);
    EXPECT_FALSE(exists(dir / "x"));
    EXPECT_EQ(run({"file://" + dir.path() + "/absent", dir / "y"}, &err), 1);
    EXPECT_EQ(lines(err), 1u);
    EXPECT_FALSE(exists(dir / "y"));
    EXPECT_FALSE(sideFiles(dir / "y"));
}

// What is not a regular file is neither read as a source nor replaced as a destination:
// a FIFO would end at once as if empty, a device might never end, and renaming over a
// device, a FIFO or a link would take it away.
TEST_F(DownloadCommandTests, OnlyRegularFilesAreReadOrReplaced) {
    writeFile(dir / "source", "file body");
    std::string source = platform::URL::fileURL(dir / "source").absoluteString();
    ASSERT_EQ(0, mkfifo((dir / "fifo").c_str(), 0600));
    std::string err;
    for (const std::string& unreadable : {dir / "fifo", std::string("/dev/zero"), dir.path()}) {
        SCOPED_TRACE(unreadable);
        EXPECT_EQ(run({platform::URL::fileURL(unreadable).absoluteString(), dir / "out"}, &err), 1);
        EXPECT_EQ(lines(err), 1u) << err;
        EXPECT_NE(err.find("not a regular file"), std::string::npos) << err;
        EXPECT_FALSE(exists(dir / "out"));
        EXPECT_FALSE(sideFiles(dir / "out"));
    }

    writeFile(dir / "target", "kept");
    std::filesystem::create_symlink(dir / "target", dir / "link");
    ASSERT_EQ(0, mkfifo((dir / "fifo-out").c_str(), 0600));
    std::string device = dir / "null";
    ASSERT_EQ(0, mknod(device.c_str(), S_IFCHR | 0600, makedev(1, 3)));
    for (const std::string& kept : {dir / "link", dir / "fifo-out", device}) {
        SCOPED_TRACE(kept);
        struct stat before {};
        ASSERT_EQ(0, lstat(kept.c_str(), &before));
        for (const std::string& url : {source, nginx.url("/files/small.bin")}) {
            EXPECT_EQ(run({url, kept}, &err), 1);
            EXPECT_EQ(lines(err), 1u) << err;
            EXPECT_NE(err.find("it is left as it is"), std::string::npos) << err;
            struct stat after {};
            ASSERT_EQ(0, lstat(kept.c_str(), &after));
            EXPECT_EQ(before.st_mode, after.st_mode);
            EXPECT_EQ(before.st_ino, after.st_ino);
            EXPECT_FALSE(sideFiles(kept));
        }
    }
    EXPECT_EQ(readFile(dir / "target"), "kept");

    // The side files likewise: a link planted as DEST.partial is not written through (a
    // resume would append to its target), a FIFO as DEST.partialState is not read.
    std::filesystem::create_symlink(dir / "target", dir / "planted.partial");
    ASSERT_EQ(0, mkfifo((dir / "planted2.partialState").c_str(), 0600));
    writeFile(dir / "planted2.partial", "0123");
    for (const std::string& dest : {dir / "planted", dir / "planted2"}) {
        SCOPED_TRACE(dest);
        for (const std::string& url : {source, nginx.url("/files/small.bin")}) {
            EXPECT_EQ(run({url, dest}, &err), 1);
            EXPECT_EQ(lines(err), 1u) << err;
            EXPECT_NE(err.find("it is left as it is"), std::string::npos) << err;
            EXPECT_FALSE(exists(dest));
        }
    }
    EXPECT_EQ(readFile(dir / "target"), "kept");

    // A DEST whose name holds a newline and a byte that is not UTF-8 is named on one line.
    std::string odd = dir / "two\nlines\xff";
    ASSERT_EQ(0, mkfifo(odd.c_str(), 0600));
    EXPECT_EQ(run({source, odd}, &err), 1);
    EXPECT_EQ(lines(err), 1u) << err;
    EXPECT_NE(err.find("two\\nlines\\xff: is a FIFO"), std::string::npos) << err;
    EXPECT_TRUE(std::filesystem::is_fifo(odd));
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "planted.partial"));
    EXPECT_TRUE(std::filesystem::is_fifo(dir / "planted2.partialState"));
    EXPECT_EQ(readFile(dir / "planted2.partial"), "0123");
}

// libcurl is loaded on first use; where it cannot be, the tool says so and fails.
TEST_F(DownloadCommandTests, ALibcurlThatCannotBeLoadedIsNamed) {
    writeFile(dir / "lib/libcurl.so.4", "");
    int status = 0;
    testsupport::runCommand("LD_LIBRARY_PATH=" + testsupport::shellQuote(dir / "lib") + " " +
                                testsupport::shellQuote(kTool) + " download " +
                                testsupport::shellQuote(nginx.url("/files/small.bin")) + " " +
                                testsupport::shellQuote(dir / "out") + " 2>" + testsupport::shellQuote(dir / "stderr"),
                            &status);
    EXPECT_EQ(1, status);
    std::string err = readFile(dir / "stderr");
    EXPECT_NE(err.find("libcurl.so.4 cannot be loaded"), std::string::npos) << err;
    // The command's own line says it too, not that the URL is none.
    EXPECT_NE(err.find("download: \"" + nginx.url("/files/small.bin") + "\": libcurl.so.4 cannot be loaded"),
              std::string::npos)
        << err;
    EXPECT_EQ(err.find("not an http"), std::string::npos) << err;
    EXPECT_FALSE(exists(dir / "out"));
    EXPECT_FALSE(sideFiles(dir / "out"));
}
