#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

#include "Platform/Exception.h"
#include "Platform/FileSystem.h"
#include "Platform/Framework.h"
#include "Platform/Log.h"
#include "Platform/Value.h"
#include "support/TempDir.h"

using namespace platform;
using testsupport::TempDir;

TEST(Value, DictionaryKeepsInsertionOrderAndCopiesDeeply) {
    Dictionary d;
    for (int i = 40; i > 0; --i) d.set("k" + std::to_string(i), i);  // past the indexing threshold
    d.set("k40", "replaced");
    EXPECT_EQ("k40", d.keys().front());
    EXPECT_EQ("replaced", *d.findString("k40"));
    EXPECT_EQ(40u, d.size());
    EXPECT_TRUE(d.remove("k20"));
    EXPECT_FALSE(d.contains("k20"));
    EXPECT_EQ(19, *d.find("k19")->integer());
    EXPECT_EQ(21, *d.find("k21")->integer());

    Value original(Dictionary{{"list", Array{Value(1)}}});
    Value copy = original;
    copy.dictionary()->find("list")->array()->push_back(Value(2));
    EXPECT_EQ(1u, original.dictionary()->findArray("list")->size());
    EXPECT_NE(original, copy);
}

TEST(Value, NumbersAndTypedViews) {
    EXPECT_EQ(Value(int64_t(5)), Value(uint64_t(5)));
    EXPECT_FALSE(Value(uint64_t(UINT64_MAX)).integer());
    EXPECT_FALSE(Value(int64_t(-1)).unsignedInteger());
    EXPECT_EQ(2.0, *Value(2).real());
    EXPECT_FALSE(Value("5").integer());
    EXPECT_FALSE(Value(true).integer());
    EXPECT_EQ(nullptr, Value(1).string());
    EXPECT_TRUE(Value().isNull());
}

TEST(Date, ISO8601) {
    EXPECT_EQ(0.0, Date::fromISO8601("1970-01-01T00:00:00Z")->secondsSince1970);
    EXPECT_EQ(3600.0, Date::fromISO8601("1970-01-01T02:00:00+01:00")->secondsSince1970);
    EXPECT_EQ(0.5, Date::fromISO8601("1970-01-01T00:00:00.5")->secondsSince1970);
    EXPECT_FALSE(Date::fromISO8601("1970-13-01T00:00:00Z"));
    EXPECT_FALSE(Date::fromISO8601("yesterday"));
    EXPECT_EQ("2023-11-14T22:13:20Z", Date{1700000000}.iso8601());
    EXPECT_EQ("2023-11-14 22:13:20 +0000", Date{1700000000}.description());
}

TEST(FileSystem, AttributesDoNotFollowLinks) {
    TempDir dir;
    testsupport::writeFile(dir / "f", "12345");
    chmod((dir / "f").c_str(), 0640);
    ASSERT_EQ(0, symlink("f", (dir / "l").c_str()));
    auto f = fs::attributes(dir / "f");
    ASSERT_TRUE(f);
    EXPECT_EQ(fs::kFileTypeRegular, *f->findString(fs::kFileType));
    EXPECT_EQ(5u, *f->find(fs::kFileSize)->unsignedInteger());
    EXPECT_EQ(0640u, *f->find(fs::kFilePosixPermissions)->unsignedInteger());
    EXPECT_EQ(uint64_t(getuid()), *f->find(fs::kFileOwnerAccountID)->unsignedInteger());
    EXPECT_TRUE(f->find(fs::kFileModificationDate)->date());
    auto l = fs::attributes(dir / "l");
    ASSERT_TRUE(l);
    EXPECT_EQ(fs::kFileTypeSymbolicLink, *l->findString(fs::kFileType));
    EXPECT_FALSE(fs::attributes(dir / "missing"));

    bool isDir = false;
    EXPECT_TRUE(fs::exists(dir.path(), &isDir));
    EXPECT_TRUE(isDir);
    EXPECT_TRUE(fs::exists(dir / "l", &isDir));
    EXPECT_FALSE(isDir);
    auto names = fs::contentsOfDirectory(dir.path());
    ASSERT_TRUE(names);
    std::sort(names->begin(), names->end());
    EXPECT_EQ((std::vector<std::string>{"f", "l"}), *names);
    EXPECT_FALSE(fs::contentsOfDirectory(dir / "f"));
    auto size = fs::fileSystemSize(dir.path());
    ASSERT_TRUE(size);
    EXPECT_GT(size->totalBytes, size->freeBytes);
}

TEST(Log, SinksReceiveConsoleAndSystemLines) {
    std::vector<std::string> console;
    std::vector<std::pair<int, std::string>> system;
    auto oldConsole = setConsoleSink([&](std::string_view m) { console.emplace_back(m); });
    auto oldSystem = setSystemLogSink([&](int p, std::string_view m) { system.emplace_back(p, m); });
    consoleLogf("Finding system files... {}", 3);
    systemLog(115, "direct");
    setConsoleSink(oldConsole);
    setSystemLogSink(oldSystem);
    EXPECT_EQ((std::vector<std::string>{"Finding system files... 3"}), console);
    ASSERT_EQ(2u, system.size());
    EXPECT_EQ("Finding system files... 3", system[0].second);
    EXPECT_EQ(115, system[1].first);
}

TEST(Log, ConsoleLineFormat) {
    // The real console sink writes "YYYY-MM-DD HH:MM:SS.mmm program[pid] message" to stderr.
    testing::internal::CaptureStderr();
    auto oldSystem = setSystemLogSink([](int, std::string_view) {});
    consoleLog("hello");
    setSystemLogSink(oldSystem);
    std::string line = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        line, "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} [^ ]+\\[[0-9]+\\] hello\n"))
        << line;
}

TEST(Exception, CarriesNameAndReason) {
    try {
        throw Exception("CWArchiveException", "Concrete subclasses must implement x");
    } catch (const Exception& e) {
        EXPECT_EQ("CWArchiveException", e.name());
        EXPECT_EQ("Concrete subclasses must implement x", e.reason());
    }
}

TEST(AssertionDeathTest, ReportsOperationFileLineAndExpression) {
    EXPECT_DEATH(FH_ASSERT("-[FHFindSystemFiles _searchPaths]", 1 + 1 == 3, "missing key: Search"),
                 "\\*\\*\\* Assertion failure in -\\[FHFindSystemFiles _searchPaths\\], "
                 "ValueAndFileTests.cpp:[0-9]+: 1 \\+ 1 == 3 \\(missing key: Search\\)");
}

TEST(Framework, OverrideEnvironmentAndResources) {
    TempDir dir;
    testsupport::writeFile(dir / "Resources/MigrationData/datv.plist", "x");
    framework::setBundlePathOverride(dir.path());
    EXPECT_EQ(dir / "Resources", framework::resourcesPath());
    EXPECT_EQ(dir / "Resources/MigrationData/datv.plist", framework::pathForResource("datv", "plist", "MigrationData"));
    EXPECT_FALSE(framework::pathForResource("datv", "plist"));
    EXPECT_FALSE(framework::pathForResource("", ""));
    framework::setBundlePathOverride(std::nullopt);
    // Test programs run with FERRYHOLD_FRAMEWORK_PATH set to the build tree's bundle.
    if (const char* env = getenv("FERRYHOLD_FRAMEWORK_PATH")) {
        EXPECT_EQ(env, framework::bundlePath());
    }
}

TEST(Framework, VariableThenTheBundleBesideTheLibrary) {
    const char* env = getenv("FERRYHOLD_FRAMEWORK_PATH");
    std::string saved = env ? env : "";
    TempDir dir;
    setenv("FERRYHOLD_FRAMEWORK_PATH", dir.path().c_str(), 1);
    std::string fromVariable = framework::bundlePath();
    // Without the variable the library finds the build tree's copy beside itself, not
    // an installed bundle.
    unsetenv("FERRYHOLD_FRAMEWORK_PATH");
    std::string beside = framework::bundlePath();
    if (!saved.empty()) setenv("FERRYHOLD_FRAMEWORK_PATH", saved.c_str(), 1);
    EXPECT_EQ(dir.path(), fromVariable);
    std::error_code error;
    EXPECT_TRUE(std::filesystem::equivalent(beside, FERRYHOLD_TEST_FRAMEWORK_DIR, error)) << beside;
}
