// A full disk under every crateworks command that writes: a small tmpfs mounted by the
// test, filled so that the command runs out of space partway. Each command exits 1 with
// one message that names the condition, leaves nothing partial under a final name and
// leaves the file that was already at that name as it was. Downloads keep resume data
// only where it is usable, and a rerun once space is back brings the whole file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <random>
#include <sys/mount.h>

#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "TestServers.h"
#include "ToolRun.h"
#include "support/SmallFileSystem.h"
#include "support/TempDir.h"

using downloadtests::FaultServer;
using downloadtests::NginxServer;
using testsupport::readFile;
using testsupport::SmallFileSystem;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

constexpr const char* kNoSpace = "No space left on device";

std::string randomBytes(size_t size, uint64_t seed) {
    std::string bytes(size, '\0');
    std::mt19937_64 generator(seed);
    for (size_t i = 0; i + 8 <= size; i += 8) {
        uint64_t word = generator();
        std::memcpy(&bytes[i], &word, 8);
    }
    return bytes;
}

// Every name below `root`, relative, sorted.
std::vector<std::string> tree(const std::string& root) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
        names.push_back(entry.path().lexically_relative(root));
    std::sort(names.begin(), names.end());
    return names;
}

using tooltest::md5;

// Equal bytes, without printing a package's worth of them when they differ.
::testing::AssertionResult sameBytes(const std::string& expected, const std::string& actual) {
    if (expected == actual) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "expected " << expected.size() << " bytes, got " << actual.size()
                                         << (actual.size() < 200 ? ": " + actual : std::string());
}

::testing::AssertionResult oneLineNamingAFullDisk(const std::string& err) {
    if (tooltest::lines(err).size() != 1) return ::testing::AssertionFailure() << "not one line: " << err;
    if (err.find(kNoSpace) == std::string::npos) return ::testing::AssertionFailure() << "no full disk in: " << err;
    return ::testing::AssertionSuccess();
}

class FullDisk : public ::testing::Test {
protected:
    TempDir dir;
    std::unique_ptr<SmallFileSystem> small;

    // Mounts a tmpfs of `size` at dir/small; false (and the test skips) when refused.
    bool mountSmall(const std::string& size) {
        small = std::make_unique<SmallFileSystem>(dir / "small", size);
        return small->mounted();
    }
    tooltest::Result crateworks(const std::vector<std::string>& arguments) {
        return tooltest::run("crateworks", arguments, dir / "stderr");
    }
};

}  // namespace

TEST_F(FullDisk, XarExtractStopsWithTheEarlierFilesIntactAndNoPartialOne) {
    if (!mountSmall("1m")) GTEST_SKIP() << small->reason();
    // Stored, so that the big file needs its full size on the small disk.
    std::string big = randomBytes(3 << 20, 7);
    writeFile(dir / "src/a-small.txt", "small file\n");
    writeFile(dir / "src/big.bin", big);
    auto made = crateworks({"xar", "create", "--store", dir / "pkg.xar", dir / "src"});
    ASSERT_EQ(0, made.status) << made.err;

    std::string out = small->path() + "/out";
    writeFile(out + "/big.bin", "the earlier big.bin\n");
    auto run = crateworks({"xar", "extract", dir / "pkg.xar", out});
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(oneLineNamingAFullDisk(run.err));
    EXPECT_NE(std::string::npos, run.err.find("big.bin")) << run.err;
    EXPECT_EQ("the earlier big.bin\n", readFile(out + "/big.bin"));
    // Whatever else is there is whole: no scratch file, nothing cut short.
    for (const auto& name : tree(out)) {
        if (name == "big.bin") continue;
        EXPECT_EQ("a-small.txt", name);
        EXPECT_EQ("small file\n", readFile(out + "/" + name));
    }
}

TEST_F(FullDisk, BomMakeKeepsTheEarlierBom) {
    if (!mountSmall("64k")) GTEST_SKIP() << small->reason();
    for (int i = 0; i < 200; ++i) writeFile(dir / ("src/d" + std::to_string(i % 7) + "/file" + std::to_string(i)), "x");
    std::string out = small->path() + "/tree.bom";
    auto made = crateworks({"bom", "make", dir / "src/d0", out});
    ASSERT_EQ(0, made.status) << made.err;
    std::string earlier = readFile(out);
    ASSERT_TRUE(small->fill());

    auto run = crateworks({"bom", "make", dir / "src", out});
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(oneLineNamingAFullDisk(run.err));
    EXPECT_NE(std::string::npos, run.err.find(out)) << run.err;
    EXPECT_EQ(earlier, readFile(out));
    EXPECT_EQ((std::vector<std::string>{".filler", "tree.bom"}), tree(small->path()));
}

class FullDiskTransfers : public FullDisk {
protected:
    NginxServer nginx{dir.path()};
    FaultServer faults;
    void SetUp() override { setenv("HOME", dir.path().c_str(), 1); }

    // Fills the small disk but for about `room` bytes.
    void leaveRoom(size_t room) {
        ASSERT_TRUE(small->fill());
        std::string filler = small->path() + "/.filler";
        std::filesystem::resize_file(filler, std::filesystem::file_size(filler) - room);
    }
};

TEST_F(FullDiskTransfers, DownloadKeepsTheEarlierFileAndARerunWithSpaceBringsItWhole) {
    if (!mountSmall("1m")) GTEST_SKIP() << small->reason();
    std::string dest = small->path() + "/out.bin";
    writeFile(dest, "the earlier out.bin\n");
    leaveRoom(100'000);

    auto run = crateworks({"download", faults.url("/p/out.bin"), dest});
    EXPECT_EQ(1, run.status);
    EXPECT_TRUE(oneLineNamingAFullDisk(run.err));
    EXPECT_EQ("the earlier out.bin\n", readFile(dest));
    bool kept = platform::fs::exists(dest + ".partialState");
    // Resume data is kept only with the bytes it speaks of.
    EXPECT_EQ(kept, platform::fs::exists(dest + ".partial"));

    std::filesystem::remove(small->path() + "/.filler");
    size_t before = faults.requests().size();
    run = crateworks({"download", faults.url("/p/out.bin"), dest});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_TRUE(sameBytes(FaultServer::body(1), readFile(dest)));
    EXPECT_EQ((std::vector<std::string>{"out.bin"}), tree(small->path()));
    auto heads = faults.requests();
    ASSERT_EQ(before + 1, heads.size());
    EXPECT_EQ(kept, heads.back().find("Range: bytes=") != std::string::npos) << heads.back();
}

TEST_F(FullDiskTransfers, FetchKeepsWhatIsUnderThePackagesNameUntilANewOnePassesItsCheck) {
    if (!mountSmall("1m")) GTEST_SKIP() << small->reason();
    std::string body = FaultServer::body(1);
    std::string root = nginx.root() + "/files/full";
    ASSERT_TRUE(tooltest::writeOnePackageProduct(root, "com.example.full", faults.url("/p/pkg.bin"),
                                                 "com.example.pkg", body));
    std::string dest = small->path() + "/dest";
    writeFile(dest + "/pkg.bin", "an older pkg.bin\n");
    leaveRoom(100'000);

    auto run = crateworks({"fetch", nginx.url("/files/full/"), dest});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ(1u, tooltest::lines(run.out).size()) << run.out;
    EXPECT_TRUE(run.out.starts_with("failed\tcom.example.pkg\tpkg.bin\t")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find(kNoSpace)) << run.out;
    EXPECT_EQ("an older pkg.bin\n", readFile(dest + "/pkg.bin"));
    bool kept = platform::fs::exists(dest + "/pkg.bin.partialState");
    EXPECT_EQ(kept, platform::fs::exists(dest + "/pkg.bin.partial"));

    std::filesystem::remove(small->path() + "/.filler");
    run = crateworks({"fetch", nginx.url("/files/full/"), dest});
    EXPECT_EQ(0, run.status) << run.out << run.err;
    EXPECT_TRUE(sameBytes(body, readFile(dest + "/pkg.bin")));
    EXPECT_EQ((std::vector<std::string>{"pkg.bin"}), tree(dest));

    // With --force, a package that passes its check is kept while its new copy cannot be
    // written.
    leaveRoom(100'000);
    run = crateworks({"fetch", "--force", nginx.url("/files/full/"), dest});
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.out.find(kNoSpace)) << run.out;
    EXPECT_TRUE(sameBytes(body, readFile(dest + "/pkg.bin")));
}
