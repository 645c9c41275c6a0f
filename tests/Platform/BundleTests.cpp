// Whether a directory is a bundle, and what it reads as when opened as one: two
// questions that answer differently for directories without an information dictionary
// or without a bundle extension.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "Platform/Bundle.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "support/TempDir.h"

using platform::Bundle;
using platform::Dictionary;
using testsupport::TempDir;

TEST(Bundle, IsABundleAndOpensAsABundleAreDifferentQuestions) {
    TempDir dir;
    auto info = [&](const std::string& relative, const std::string& identifier) {
        platform::fs::createDirectories(platform::path::deletingLastComponent(dir / relative));
        ASSERT_TRUE(platform::plist::writeXMLFile(Dictionary{{Bundle::kIdentifierKey, identifier}}, dir / relative));
    };
    info("App.app/Contents/Info.plist", "com.vendor.app");
    info("Old.bundle/Resources/Info.plist", "com.vendor.old");
    info("Flat.plugin/Info.plist", "com.vendor.flat");
    info("Tool/Contents/Info.plist", "com.vendor.tool");   // no bundle extension
    testsupport::writeFile(dir / "Bare.pkg/Contents/readme", "");  // no information dictionary
    testsupport::writeFile(dir / "Loose.pkg/Resources/readme", "");
    testsupport::writeFile(dir / "Empty.pkg/readme", "");
    testsupport::writeFile(dir / "File.app", "not a directory");

    struct Case {
        const char* name;
        bool isBundle;
        std::optional<std::string> resources;  // relative to the directory; absent: does not open
        std::optional<std::string> identifier;
    };
    const Case cases[] = {
        {"App.app", true, "Contents/Resources", "com.vendor.app"},
        {"Old.bundle", true, "Resources", "com.vendor.old"},
        {"Flat.plugin", true, "", "com.vendor.flat"},
        {"Tool", false, "Contents/Resources", "com.vendor.tool"},
        {"Bare.pkg", false, "Contents/Resources", std::nullopt},
        {"Loose.pkg", false, "Resources", std::nullopt},
        {"Empty.pkg", false, "", std::nullopt},
        {"File.app", false, std::nullopt, std::nullopt},
        {"Missing.app", false, std::nullopt, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir / c.name;
        EXPECT_EQ(c.isBundle, Bundle::isBundle(path));
        auto strict = Bundle::openIfBundle(path);
        EXPECT_EQ(c.isBundle, strict.has_value());
        auto read = Bundle::openDirectoryAsBundle(path);
        ASSERT_EQ(c.resources.has_value(), read.has_value());
        if (!read) continue;
        EXPECT_EQ(path, read->bundlePath());
        EXPECT_EQ(c.resources->empty() ? path : dir / (std::string(c.name) + "/" + *c.resources), read->resourcePath());
        EXPECT_EQ(c.identifier, read->identifier());
        if (strict) {
            EXPECT_EQ(read->resourcePath(), strict->resourcePath());
            EXPECT_EQ(read->infoDictionary(), strict->infoDictionary());
        }
    }

    // The walks ask the strict question.
    auto below = Bundle::bundlePathsBelow(dir.path());
    std::sort(below.begin(), below.end());
    EXPECT_EQ((std::vector<std::string>{dir / "App.app", dir / "Flat.plugin", dir / "Old.bundle"}), below);
    EXPECT_EQ(3u, Bundle::bundleInformationAtPath(dir.path()).size());
}
