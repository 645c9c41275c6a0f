// crateworks fetch: products served by nginx, packages from nginx and the fault server,
// retries, what a failure leaves in DEST, SIGINT and resume, trust, the progress bar on
// a pseudo-terminal, and wrong calls.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "TestServers.h"
#include "ToolRun.h"
#include "support/TempDir.h"
#include "support/TestPKI.h"

using downloadtests::FaultServer;
using downloadtests::NginxServer;
using platform::fs::exists;
using platform::fs::File;
using platform::fs::OpenOptions;
using testsupport::readFile;
using testsupport::shellQuote;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

const std::string kTool = std::string(FERRYHOLD_BINARY_DIR) + "/crateworks";

using tooltest::md5;

size_t count(const std::string& haystack, const std::string& needle) {
    size_t n = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1)) ++n;
    return n;
}

// One package of a product index.
struct Package {
    Package(std::string url, std::string identifier, std::string body, std::optional<std::string> md5 = {})
        : url(std::move(url)), identifier(std::move(identifier)), body(std::move(body)), md5(std::move(md5)) {}
    std::string url, identifier, body;
    std::optional<std::string> md5;  // defaults to the body's
};

class FetchCommandTests : public ::testing::Test {
protected:
    TempDir dir;
    NginxServer nginx{dir.path()};
    FaultServer faults;
    std::string dest = dir / "dest";

    void SetUp() override { setenv("HOME", dir.path().c_str(), 1); }

    // Writes `name`/index.product under nginx's files; packages with a relative URL are
    // written beside it. Answers the product's directory URL.
    std::string product(const std::string& name, const std::vector<Package>& packages,
                        const std::string& indexName = "index.product") {
        std::string root = nginx.root() + "/files/" + name;
        platform::Array list;
        for (const auto& p : packages) {
            if (p.url.find("://") == std::string::npos) writeFile(root + "/" + p.url, p.body);
            list.push_back(platform::Dictionary{{"URL", p.url},
                                                {"Identifier", p.identifier},
                                                {"Version", "1.0"},
                                                {"Size", platform::Value(int64_t(p.body.size()))},
                                                {"MD5", p.md5.value_or(md5(p.body))}});
        }
        std::filesystem::create_directories(root);
        platform::Dictionary index{{"ProductIdentifier", "com.example.product"}, {"ProductVersion", "1"},
                                   {"Packages", list}};
        EXPECT_TRUE(platform::plist::writeXMLFile(platform::Value(index), root + "/" + indexName));
        return nginx.url("/files/" + name + "/");
    }

    // Runs the command with standard output in `out` and standard error in `err`.
    int run(const std::vector<std::string>& args, std::string* out = nullptr, std::string* err = nullptr) {
        std::string command = shellQuote(kTool) + " fetch";
        for (const auto& a : args) command += " " + shellQuote(a);
        int status = -1;
        std::string printed = testsupport::runCommand(command + " 2>" + shellQuote(dir / "stderr"), &status);
        if (out) *out = printed;
        if (err) *err = readFile(dir / "stderr");
        return status;
    }

    std::vector<std::string> destNames() {
        std::vector<std::string> names;
        if (!exists(dest)) return names;
        for (const auto& entry : std::filesystem::directory_iterator(dest)) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    size_t requestsFor(const std::string& path) {
        size_t n = 0;
        for (const auto& head : faults.requests()) n += head.starts_with("GET " + path + " ");
        return n;
    }
};

}  // namespace

TEST_F(FetchCommandTests, ThreePackagesAreFetchedCheckedAndReportedOneLineEach) {
    std::vector<Package> packages{{"A.bin", "com.example.a", std::string(70'000, 'a')},
                                  {"sub/B.bin", "com.example.b", "bee"},
                                  {"C.bin", "com.example.c", ""}};
    std::string url = product("three", packages);
    for (const char* jobs : {"1", "2"}) {
        std::filesystem::remove_all(dest);
        std::string out, err;
        // The product named by its directory and by its index file.
        std::string given = std::string(jobs) == "1" ? url : url + "index.product";
        ASSERT_EQ(run({given, dest, "--jobs", jobs}, &out, &err), 0) << err;
        EXPECT_EQ(destNames(), (std::vector<std::string>{"A.bin", "B.bin", "C.bin"}));
        EXPECT_EQ(readFile(dest + "/A.bin"), packages[0].body);
        EXPECT_EQ(readFile(dest + "/B.bin"), "bee");
        EXPECT_EQ(count(out, "\n"), 3u) << out;
        for (const auto& p : packages) EXPECT_EQ(count(out, p.identifier), 1u) << out;
        EXPECT_EQ(out.find("failed"), std::string::npos);
        EXPECT_EQ(err, "");
    }
    // A second run fetches again only what no longer passes its check.
    writeFile(dest + "/B.bin", "stale");
    std::string out;
    EXPECT_EQ(run({url, dest, "--jobs", "1000"}, &out), 0);
    EXPECT_EQ(count(out, "fetched"), 1u) << out;
    EXPECT_EQ(count(out, "present"), 2u) << out;
    EXPECT_EQ(readFile(dest + "/B.bin"), "bee");
}

TEST_F(FetchCommandTests, FailedPackagesAreRetriedOnceAndLeaveNothingWhileTheOthersArrive) {
    std::string body = FaultServer::body(1);
    std::vector<Package> packages{{faults.url("/bad/wrong-md5.bin"), "com.example.wrong", body, md5("other")},
                                  {"good.bin", "com.example.good", "good body"},
                                  {faults.url("/upper/upper.bin"), "com.example.upper", body, md5(body)},
                                  {nginx.url("/missing"), "com.example.missing", "x"}};
    // An upper-case digest is not the digest.
    for (char& c : *packages[2].md5) c = char(toupper(c));
    writeFile(dest + "/wrong-md5.bin", "left from an older run");
    std::string out, err;
    EXPECT_EQ(run({product("failing", packages), dest}, &out, &err), 1);
    // What was under a failed package's name stays; nothing else of the failures does.
    EXPECT_EQ(destNames(), (std::vector<std::string>{"good.bin", "wrong-md5.bin"}));
    EXPECT_EQ(readFile(dest + "/wrong-md5.bin"), "left from an older run");
    EXPECT_EQ(requestsFor("/bad/wrong-md5.bin"), 2u);
    EXPECT_EQ(requestsFor("/upper/upper.bin"), 2u);
    EXPECT_EQ(count(out, "failed"), 3u) << out;
    for (const char* id : {"com.example.wrong", "com.example.upper", "com.example.missing"}) {
        auto line = out.find(id);
        ASSERT_NE(line, std::string::npos) << out;
        EXPECT_NE(out.rfind("failed", line), std::string::npos);
    }
    auto good = out.find("com.example.good");
    ASSERT_NE(good, std::string::npos);
    std::string goodLine = out.substr(out.rfind('\n', good) + 1, out.find('\n', good) - out.rfind('\n', good) - 1);
    EXPECT_EQ(goodLine.find("failed"), std::string::npos) << goodLine;
    EXPECT_EQ(count(err, "\n"), 1u) << err;
    // A failed check says which digests differed.
    EXPECT_NE(out.find("\twrong-md5.bin\texpected MD5 " + md5("other") + ", got " + md5(body) + "\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("\tmissing\tHTTP 404 Not Found from " + nginx.url("/missing") + "\n"), std::string::npos) << out;
}

TEST_F(FetchCommandTests, PackagesAlreadyInPlaceAreNotFetchedAgainUnlessForced) {
    std::string body = FaultServer::body(1);
    std::string url = product("again", {{faults.url("/p/one.bin"), "com.example.one", body},
                                        {faults.url("/p/two.bin"), "com.example.two", body}});
    std::string out;
    ASSERT_EQ(run({url, dest}, &out), 0);
    EXPECT_EQ(count(out, "fetched\t"), 2u) << out;
    ASSERT_EQ(faults.requests().size(), 2u);
    // Both pass their check: nothing reaches the server.
    EXPECT_EQ(run({url, dest}, &out), 0);
    EXPECT_EQ("present\tcom.example.one\tone.bin\npresent\tcom.example.two\ttwo.bin\n", out);
    EXPECT_EQ(faults.requests().size(), 2u);
    // One that no longer passes is fetched again, the other not.
    writeFile(dest + "/two.bin", "damaged");
    EXPECT_EQ(run({url, dest}, &out), 0);
    EXPECT_EQ(requestsFor("/p/one.bin"), 1u);
    EXPECT_EQ(requestsFor("/p/two.bin"), 2u);
    EXPECT_EQ(readFile(dest + "/two.bin"), body);
    EXPECT_EQ(run({url, dest, "--force"}, &out), 0);
    EXPECT_EQ(requestsFor("/p/one.bin"), 2u);
    EXPECT_EQ(count(out, "fetched\t"), 2u) << out;
}

TEST_F(FetchCommandTests, WhatAProductCallsItsPackagesCannotForgeLinesOrLoseThem) {
    // A name with "failed" in it is still a finished line; an escaped "+" in a local
    // product's package URL still finds its way back to its package.
    std::string root = dir / "local";
    writeFile(root + "/a+b.bin", "plus");
    writeFile(root + "/failed-helper.bin", "helper");
    platform::Array list;
    for (auto [url, body] : {std::pair{"a%2Bb.bin", "plus"}, {"failed-helper.bin", "helper"}})
        list.push_back(platform::Dictionary{{"URL", url}, {"Identifier", "com.example.failed"}, {"Version", "1"},
                                            {"Size", platform::Value(int64_t(std::string(body).size()))},
                                            {"MD5", md5(body)}});
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(platform::Dictionary{{"Packages", list}}),
                                              root + "/index.product"));
    for (const char* jobs : {"1", "2"}) {
        std::filesystem::remove_all(dest);
        std::string out, err;
        ASSERT_EQ(run({root, dest, "--jobs", jobs}, &out, &err), 0) << err;
        EXPECT_EQ(destNames(), (std::vector<std::string>{"a+b.bin", "failed-helper.bin"}));
        EXPECT_EQ(count(out, "fetched"), 2u) << out;
        EXPECT_EQ(out.find("failed"), std::string::npos) << out;
    }
}

TEST_F(FetchCommandTests, ASourceSendingMoreThanThePackageSizeIsCutOff) {
    std::string body = FaultServer::body(1);
    // The index says 1000 bytes; the server sends 300,000 with the right digest.
    std::string url = product("long", {{faults.url("/long/p.bin"), "com.example.long", body}});
    std::string index = nginx.root() + "/files/long/index.product";
    auto dictionary = platform::plist::readDictionaryFile(index);
    ASSERT_TRUE(dictionary);
    platform::Array packages = *dictionary->find("Packages")->array();
    platform::Dictionary entry = *packages[0].dictionary();
    entry.set("Size", platform::Value(int64_t(1000)));
    packages[0] = platform::Value(entry);
    dictionary->set("Packages", platform::Value(packages));
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(*dictionary), index));
    std::string out, err;
    EXPECT_EQ(run({url, dest}, &out, &err), 1);
    EXPECT_NE(out.find("more than the package's 1000 bytes"), std::string::npos) << out;
    EXPECT_TRUE(destNames().empty());
}

TEST_F(FetchCommandTests, A500OnceAndACutOffTransferSucceedOnTheirRetry) {
    std::string body = FaultServer::body(1);
    std::vector<Package> packages{{faults.url("/flaky/one.bin"), "com.example.flaky", body},
                                  {faults.url("/drop/100000"), "com.example.drop", body}};
    std::string out, err;
    ASSERT_EQ(run({product("retry", packages), dest}, &out, &err), 0) << out << err;
    EXPECT_EQ(destNames(), (std::vector<std::string>{"100000", "one.bin"}));
    EXPECT_EQ(readFile(dest + "/one.bin"), body);
    EXPECT_EQ(readFile(dest + "/100000"), body);
    EXPECT_EQ(requestsFor("/flaky/one.bin"), 2u);
    // The cut-off transfer's retry goes on from where it stopped.
    std::vector<std::string> drops;
    for (const auto& head : faults.requests())
        if (head.starts_with("GET /drop/100000 ")) drops.push_back(head);
    ASSERT_EQ(drops.size(), 2u);
    EXPECT_EQ(drops[0].find("Range:"), std::string::npos);
    EXPECT_NE(drops[1].find("Range: bytes=100000-"), std::string::npos) << drops[1];
}

TEST_F(FetchCommandTests, SigintKeepsTheResumeDataAndARerunResumesWithARange) {
    std::string body = FaultServer::body(1);
    std::string url = product("stalling", {{faults.url("/stall"), "com.example.stall", body}});
    auto null = File::open("/dev/null", {.access = OpenOptions::Access::Write});
    ASSERT_TRUE(null);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(null->descriptor(), STDOUT_FILENO);
        dup2(null->descriptor(), STDERR_FILENO);
        execl(kTool.c_str(), "crateworks", "fetch", url.c_str(), dest.c_str(), (char*)nullptr);
        _exit(127);
    }
    std::string partial = dest + "/stall.partial";
    struct stat st {};
    for (int i = 0; i < 1000 && !(stat(partial.c_str(), &st) == 0 && st.st_size == 1000); ++i) usleep(10'000);
    ASSERT_EQ(st.st_size, 1000);
    kill(pid, SIGINT);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_EQ(destNames(), (std::vector<std::string>{"stall.partial", "stall.partialState"}));

    EXPECT_EQ(run({url, dest}), 0);
    EXPECT_EQ(destNames(), std::vector<std::string>{"stall"});
    EXPECT_EQ(readFile(dest + "/stall"), body);
    auto heads = faults.requests();
    ASSERT_EQ(heads.size(), 2u);
    EXPECT_NE(heads[1].find("Range: bytes=1000-"), std::string::npos) << heads[1];
}

TEST_F(FetchCommandTests, SignedSecureProductIsFetchedAtItsLevelAndRefusedAbove) {
    testpki::TrustEnvironment trust(dir / "trust");
    auto chain = testpki::makerChain(testpki::MakerLeafKind::Distribution);
    trust.setMakerRoot(chain.root);
    std::string root = nginx.root() + "/files/secure";
    product("secure", {{faults.url("/pkg/p.bin"), "com.example.p", FaultServer::body(1)}}, "index.sproduct");
    // The index names a signed distribution archive beside it.
    auto index = platform::plist::readDictionaryFile(root + "/index.sproduct");
    ASSERT_TRUE(index);
    index->set("DistributionArchive", "Product.xar");
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(*index), root + "/index.sproduct"));
    writeFile(dir / "content/Distribution", "<installer-script/>");
    chain.leaf.key.writePEM(dir / "leaf.key");
    chain.leaf.writePEM(dir / "leaf.pem");
    chain.intermediate.writePEM(dir / "intermediate.pem");
    int status = -1;
    testsupport::runCommand(shellQuote(kTool) + " xar create " + shellQuote(dir / "plain.xar") + " " + shellQuote(dir / "content") +
                                " && " + shellQuote(kTool) + " xar sign " + shellQuote(dir / "plain.xar") + " " +
                                shellQuote(root + "/Product.xar") + " --key " + shellQuote(dir / "leaf.key") + " --cert " +
                                shellQuote(dir / "leaf.pem") + " --cert " + shellQuote(dir / "intermediate.pem"),
                            &status);
    ASSERT_EQ(status, 0);

    std::string url = nginx.url("/files/secure/index.sproduct"), err;
    EXPECT_EQ(run({url, dest, "--min-trust", "501"}, nullptr, &err), 1);
    EXPECT_EQ(count(err, "\n"), 1u) << err;
    EXPECT_NE(err.find("401"), std::string::npos) << err;
    EXPECT_NE(err.find("501"), std::string::npos) << err;
    EXPECT_FALSE(exists(dest));
    EXPECT_EQ(requestsFor("/pkg/p.bin"), 0u);

    EXPECT_EQ(run({url, dest, "--min-trust", "401"}, nullptr, &err), 0) << err;
    EXPECT_EQ(destNames(), std::vector<std::string>{"p.bin"});
}

TEST_F(FetchCommandTests, ProgressBarOnAPseudoTerminalNeverGoesBackAndEndsAt100) {
    std::string big(24 << 20, 'z');
    std::string url = product("bar", {{"big.bin", "com.example.big", big},
                                      {faults.url("/flaky/bar.bin"), "com.example.flaky", FaultServer::body(1)},
                                      {"small.bin", "com.example.small", "small"}});
    auto master = File::adopt(posix_openpt(O_RDWR | O_NOCTTY), "pseudo-terminal");
    ASSERT_TRUE(master.isOpen());
    ASSERT_EQ(grantpt(master.descriptor()), 0);
    ASSERT_EQ(unlockpt(master.descriptor()), 0);
    auto slave = File::open(ptsname(master.descriptor()), {.access = OpenOptions::Access::ReadWrite});
    ASSERT_TRUE(slave);
    pid_t pid = fork();
    if (pid == 0) {
        // The terminal becomes the controlling terminal of the tool's own session.
        setsid();
        ioctl(slave->descriptor(), TIOCSCTTY, 0);
        struct winsize size {};
        size.ws_col = 60;
        size.ws_row = 24;
        ioctl(slave->descriptor(), TIOCSWINSZ, &size);
        dup2(slave->descriptor(), STDOUT_FILENO);
        dup2(slave->descriptor(), STDERR_FILENO);
        master.close();
        execl(kTool.c_str(), "crateworks", "fetch", url.c_str(), dest.c_str(), (char*)nullptr);
        _exit(127);
    }
    // Only the child may hold the terminal open, or its end never shows.
    slave->close();
    std::string screen;
    uint8_t buffer[4096];
    for (;;) {
        auto n = master.read(buffer);
        if (!n || *n == 0) break;  // EIO once the child has closed the terminal
        screen.append(reinterpret_cast<const char*>(buffer), *n);
    }
    master.close();
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << screen;

    // Each drawing of the bar reads "[####----] 57.3%".
    std::vector<double> percentages;
    for (size_t at = screen.find("] "); at != std::string::npos; at = screen.find("] ", at + 1)) {
        const char* start = screen.c_str() + at + 2;
        char* end = nullptr;
        double value = std::strtod(start, &end);
        if (end != start && *end == '%') percentages.push_back(value);
    }
    ASSERT_GE(percentages.size(), 2u) << screen;
    for (size_t i = 1; i < percentages.size(); ++i) EXPECT_GE(percentages[i], percentages[i - 1]) << screen;
    EXPECT_EQ(percentages.back(), 100.0) << screen;
    EXPECT_NE(screen.find(" of 24.3 MiB"), std::string::npos) << screen;
    // Every drawing fits the terminal's 60 columns, so that it never wraps.
    for (size_t at = screen.find("\033[K"); at != std::string::npos; at = screen.find("\033[K", at + 1)) {
        size_t end = screen.find_first_of("\r\n", at);
        EXPECT_LT(end - at - 3, 60u) << screen.substr(at, end - at);
    }
    EXPECT_EQ(count(screen, "fetched"), 3u) << screen;
    EXPECT_EQ(destNames(), (std::vector<std::string>{"bar.bin", "big.bin", "small.bin"}));
}

TEST_F(FetchCommandTests, WrongCallsAndUnusableProductsWriteNothing) {
    std::string url = product("plain", {{"a.bin", "com.example.a", "a"}});
    for (const auto& args : std::vector<std::vector<std::string>>{{url},
                                                                  {url, dest, "--jobs", "0"},
                                                                  {url, dest, "--jobs", "1.5"},
                                                                  {url, dest, "--jobs", "two"},
                                                                  {url, dest, "--jobs"},
                                                                  {url, dest, "--min-trust", "high"},
                                                                  {url, dest, "--cacert"},
                                                                  {url, dest, "--bogus"},
                                                                  {url, dest, "extra"}}) {
        std::string err;
        EXPECT_EQ(run(args, nullptr, &err), 2) << args.back();
        EXPECT_NE(err.find("Usage: crateworks "), std::string::npos);
        EXPECT_FALSE(exists(dest));
    }
    std::string err;
    EXPECT_EQ(run({nginx.url("/files/nowhere/"), dest}, nullptr, &err), 1);
    EXPECT_EQ(count(err, "\n"), 1u) << err;
    // Two different packages that would land on one name, and a package URL without a
    // file name, are refused before anything is fetched.
    for (const auto& clash : std::vector<std::vector<Package>>{
             {{"one/x.bin", "com.example.one", "1"}, {"two/x.bin", "com.example.two", "2"}},
             {{"x.bin", "com.example.x", "1"}, {"x.bin.partial", "com.example.y", "2"}},
             {{faults.url("/"), "com.example.root", "1"}},
             {{faults.url("/nul%00.bin"), "com.example.nul", "1"}},
             {{faults.url("/line%0Afailed.bin"), "com.example.newline", "1"}},
             {{"file:///etc/passwd", "com.example.local", "1"}}}) {
        std::filesystem::remove_all(nginx.root() + "/files/clash");
        EXPECT_EQ(run({product("clash", clash), dest}, nullptr, &err), 1);
        EXPECT_EQ(count(err, "\n"), 1u) << err;
        EXPECT_FALSE(exists(dest));
    }
    EXPECT_TRUE(faults.requests().empty());
}

// A link planted under a package's side-file name is never written through: that
// package fails (after its retry) and the link's target is as it was; the others arrive.
TEST_F(FetchCommandTests, ALinkPlantedAsAPartialFileIsNotWrittenThrough) {
    std::vector<Package> packages{{"A.bin", "com.example.a", "alpha body"}, {"B.bin", "com.example.b", "bee"}};
    std::string url = product("planted", packages);
    std::filesystem::create_directories(dest);
    writeFile(dir / "victim", "precious");
    std::filesystem::create_symlink(dir / "victim", dest + "/A.bin.partial");
    std::string out, err;
    EXPECT_EQ(run({url, dest}, &out, &err), 1);
    EXPECT_EQ(readFile(dir / "victim"), "precious");
    EXPECT_TRUE(std::filesystem::is_symlink(dest + "/A.bin.partial"));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(dest + "/A.bin")));
    EXPECT_EQ(readFile(dest + "/B.bin"), "bee");
    EXPECT_EQ(count(out, "failed"), 1u) << out;
}
