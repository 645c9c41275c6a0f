// A full disk under the library's own writers, in process: the system path cache the
// reaper writes. The earlier cache stays as it was and the log says why the new one
// could not be written. (The crateworks commands' full-disk tests run the tool.)
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "support/SmallFileSystem.h"
#include "support/TempDir.h"

using testsupport::readFile;
using testsupport::SmallFileSystem;
using testsupport::TempDir;

TEST(FullDisk, TheSystemPathCacheKeepsTheEarlierCacheAndSaysWhy) {
    TempDir dir;
    std::string root = dir / "volume";
    SmallFileSystem caches(root + "/Library/Caches", "64k");
    if (!caches.mounted()) GTEST_SKIP() << caches.reason();
    std::vector<std::string> console;
    auto oldConsole = platform::setConsoleSink([&](std::string_view line) { console.emplace_back(line); });
    auto oldSystem = platform::setSystemLogSink([](int, std::string_view) {});

    FHSystemPathCache cache(root, std::nullopt);
    cache.write({"/usr/bin/earlier"});
    std::string earlier = readFile(cache.path());
    ASSERT_NE(std::string::npos, earlier.find("/usr/bin/earlier"));
    ASSERT_TRUE(caches.fill());

    std::vector<std::string> paths;
    for (int i = 0; i < 2000; ++i) paths.push_back("/usr/lib/lib" + std::to_string(i) + ".dylib");
    console.clear();
    cache.write(paths);
    platform::setConsoleSink(oldConsole);
    platform::setSystemLogSink(oldSystem);

    EXPECT_EQ(earlier, readFile(cache.path()));
    std::vector<std::string> expected{"FSF cache NOT written: " + cache.path() + ": No space left on device"};
    std::erase(console, "Writing system path cache.");
    EXPECT_EQ(expected, console);
    EXPECT_EQ((std::vector<std::string>{".filler", "com.quarn.FindSystemFiles.plist"}),
              [&] {
                  auto names = platform::fs::contentsOfDirectory(caches.path()).value();
                  std::sort(names.begin(), names.end());
                  return names;
              }());
}
