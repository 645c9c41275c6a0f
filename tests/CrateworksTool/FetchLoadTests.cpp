// crateworks fetch under load: a product of hundreds of small packages from nginx, eight
// transfers at once. Every package arrives whole and passes its check, nothing is left
// beside them, the queue runs dry so the command ends, and the peak resident size of the
// fetch process does not grow with the number of packages.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <random>
#include <set>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/PropertyList.h"
#include "TestServers.h"
#include "ToolRun.h"
#include "support/TempDir.h"

using downloadtests::NginxServer;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

const std::string kTool = std::string(FERRYHOLD_BINARY_DIR) + "/crateworks";

// The tool is built like this test. Under a sanitizer the resident size also holds the
// sanitizer's own state (shadow memory, records of every thread ever made), which grows
// with the checks run; the bound on it is checked in plain builds only.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

using tooltest::md5;

struct Measured {
    int status = -1;   // the exit status, or 128 + the signal that ended it
    long peakKiB = 0;  // the peak resident size of the process
    std::string out, err;
};

// Runs the tool with `arguments`, standard output and error into files under `scratch`,
// and reports the peak resident size the kernel recorded for it.
Measured runMeasured(const std::vector<std::string>& arguments, const std::string& scratch) {
    std::vector<std::string> words{kTool};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    std::string outPath = scratch + "/stdout", errPath = scratch + "/stderr";

    Measured result;
    pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << strerror(errno);
        return result;
    }
    if (pid == 0) {
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int in = open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0 || dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(126);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    pid_t waited;
    do waited = wait4(pid, &status, 0, &usage);
    while (waited < 0 && errno == EINTR);
    EXPECT_EQ(waited, pid) << strerror(errno);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.peakKiB = usage.ru_maxrss;
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

class FetchLoadTests : public ::testing::Test {
protected:
    TempDir dir;
    NginxServer nginx{dir.path()};

    void SetUp() override { setenv("HOME", dir.path().c_str(), 1); }

    // A product of `count` packages of a few KiB each, every one with different bytes
    // and its MD5 in the index. Answers the product's URL; `bodies` gets the packages'
    // file names and contents.
    std::string product(const std::string& name, size_t count, std::map<std::string, std::string>& bodies) {
        std::string root = nginx.root() + "/files/" + name;
        std::mt19937 random{unsigned(count)};
        platform::Array list;
        for (size_t i = 0; i < count; ++i) {
            std::string file = fmt::format("package{:04}.bin", i);
            std::string body(1024 + random() % 7168, '\0');
            for (char& c : body) c = char(random());
            writeFile(root + "/" + file, body);
            list.push_back(platform::Dictionary{{"URL", file},
                                                {"Identifier", fmt::format("com.example.load.package{:04}", i)},
                                                {"Version", "1.0"},
                                                {"Size", platform::Value(int64_t(body.size()))},
                                                {"MD5", md5(body)}});
            bodies.emplace(file, std::move(body));
        }
        platform::Dictionary index{{"ProductIdentifier", "com.example.load"}, {"ProductVersion", "1"},
                                   {"Packages", list}};
        EXPECT_TRUE(platform::plist::writeXMLFile(platform::Value(index), root + "/index.product"));
        return nginx.url("/files/" + name + "/");
    }

    // Fetches a product of `count` packages with eight transfers at once and checks that
    // every one arrived, whole, reported once as fetched, with nothing else in DEST.
    // Answers the peak resident size of the fetch in KiB.
    long fetchAll(size_t count) {
        std::map<std::string, std::string> bodies;
        std::string url = product(fmt::format("load{}", count), count, bodies);
        std::string dest = dir / fmt::format("dest{}", count);
        Measured run = runMeasured({"fetch", url, dest, "--jobs", "8"}, dir.path());
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");

        auto lines = testsupport::lines(run.out);
        EXPECT_EQ(lines.size(), count) << run.out.substr(0, 2000);
        std::set<std::string> reported;
        for (const auto& line : lines) {
            auto tab1 = line.find('\t'), tab2 = line.find('\t', tab1 + 1);
            if (tab2 == std::string::npos) {
                ADD_FAILURE() << "not a line of fetch: " << line;
                continue;
            }
            EXPECT_EQ(line.substr(0, tab1), "fetched") << line;
            EXPECT_TRUE(reported.insert(line.substr(tab2 + 1)).second) << "reported twice: " << line;
        }
        size_t entries = 0;
        for (const auto& entry : std::filesystem::directory_iterator(dest)) {
            ++entries;
            std::string name = entry.path().filename();
            auto body = bodies.find(name);
            if (body == bodies.end()) {
                ADD_FAILURE() << "left in DEST: " << name;
                continue;
            }
            EXPECT_TRUE(entry.is_regular_file()) << name;
            EXPECT_TRUE(readFile(entry.path()) == body->second) << name << " is not the package served";
            EXPECT_TRUE(reported.count(name)) << name << " arrived but was not reported";
        }
        EXPECT_EQ(entries, count);
        return run.peakKiB;
    }
};

}  // namespace

TEST_F(FetchLoadTests, FiveHundredPackagesEightAtOnceAllArriveCheckedInFlatMemory) {
    long peak50 = fetchAll(50);
    if (HasFailure()) return;
    long peak500 = fetchAll(500);
    if (kSanitized) GTEST_SKIP() << "every package arrived; under a sanitizer the resident size is not the tool's own";
    // Ten times the packages may cost their references, queue elements and lines, not
    // a transfer's buffers or a check's thread each: those would come to several MiB.
    constexpr long kMarginKiB = 4096;
    EXPECT_LT(peak500, peak50 + kMarginKiB) << "peak resident size " << peak50 << " KiB for 50 packages, "
                                            << peak500 << " KiB for 500";
    RecordProperty("PeakResidentKiB50", int(peak50));
    RecordProperty("PeakResidentKiB500", int(peak500));
    fmt::print("peak resident size of fetch --jobs 8: {} KiB for 50 packages, {} KiB for 500\n", peak50, peak500);
}
