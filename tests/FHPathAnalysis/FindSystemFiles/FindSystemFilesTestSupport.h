// Shared set-up of the finder tests: a resource bundle with a version, an exclusion
// list and receipt lists of the test's own, a volume, and captured log lines.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "FHPathAnalysis/FindSystemFiles/FHFindSystemFiles.h"
#include "Platform/Log.h"
#include "support/FrameworkFixture.h"
#include "support/VolumeBuilder.h"

namespace findtests {

inline constexpr const char* kSystemGroup = "com.quarn.FindSystemFiles.pkg-group";

class FinderTest : public ::testing::Test {
protected:
    void SetUp() override {
        crateworks::CWReceipt::_clearCache();
        detail::resetPackageDataPathsForTesting();
        bundle.setEmptyRuleData();
        oldConsole_ = platform::setConsoleSink([this](std::string_view m) { console.emplace_back(m); });
        oldSystem_ = platform::setSystemLogSink([](int, std::string_view) {});
    }
    void TearDown() override {
        platform::setConsoleSink(oldConsole_);
        platform::setSystemLogSink(oldSystem_);
        crateworks::CWReceipt::_clearCache();
        detail::resetPackageDataPathsForTesting();
    }

    // The three packages that make a sane set, in the system group, each with the entries given.
    void saneSystem(testsupport::VolumeBuilder& volume, const std::vector<std::string>& bsdEntries = {}) {
        volume.package("com.quarn.pkg.BaseSystem").groups({kSystemGroup});
        volume.package("com.quarn.pkg.Essentials").groups({kSystemGroup});
        auto bsd = volume.package("com.quarn.pkg.BSD").groups({kSystemGroup});
        for (const auto& e : bsdEntries) bsd.entry(e, e.find('.') == std::string::npos ? "dir" : "file");
    }

    std::vector<std::string> find(const std::string& root) {
        auto finder = FHFindSystemFiles::initWithRootPath(root);
        EXPECT_TRUE(finder);
        if (!finder) return {};
        return finder->_findSystemPaths().value_or(std::vector<std::string>{});
    }

    bool logged(const std::string& line) const {
        return std::find(console.begin(), console.end(), line) != console.end();
    }

    testsupport::FrameworkFixture bundle;
    testsupport::TempDir dir;
    std::vector<std::string> console;

private:
    platform::ConsoleSink oldConsole_;
    platform::SystemLogSink oldSystem_;
};

// Paths of `all` that are not among the fixed entries the finder always adds.
inline std::vector<std::string> withoutFixedEntries(std::vector<std::string> all) {
    std::erase_if(all, [](const std::string& p) {
        return p == "/.Archived_Directories\r" || p == "/.HFS+ Private Directory Data\r" ||
               p == "/Library/Logs/Ferryhold.log" || p == "/Library/Logs/FerryholdNet.log" ||
               p == "/Library/Receipts/BSD.pkg";
    });
    return all;
}

}  // namespace findtests
