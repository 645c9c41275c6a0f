// The fixture builder of tests/support, judged through the volumes it builds: stat and
// find see the items, the receipt database reads the receipts.
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sstream>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/Digest.h"
#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "ReceiptTestHelpers.h"
#include "support/TempDir.h"
#include "support/VolumeBuilder.h"
#include "support/VolumeDescriptionParser.h"

using crateworks::CWReceipt;
using testsupport::PackageDescription;
using testsupport::runCommand;
using testsupport::TempDir;
using testsupport::VolumeBuilder;

namespace {

// What stat says of an item: type, size, permissions, owner, group, link target.
std::string statOf(const TempDir& dir, const std::string& relative) {
    return runCommand("cd '" + dir.path() + "' && stat -c '%F %s %a %u %g %N' '" + relative + "'");
}

// Every item below the root except receipt contents, as find reports it.
std::string listing(const std::string& root) {
    return runCommand("cd '" + root + "' && find . -path ./private/var/db/receipts -prune -o "
                      "-printf '%P %y %s %m %U %G %l\\n' | sort");
}

const char* kDescription = R"(# the same volume as the builder calls in BuilderCallsAndTextFormatAgree
system 10.6.8
user alice uid=501 gid=20
dir /Library/Caches mode=0700 owner=0 group=80
file /etc/motd text="hello world\n"
file /var/vm/swap size=1048576
file /var/log/system.log size=5000 fill mode=0640 owner=0 group=4
link /usr/bin/sh bash

package com.quarn.pkg.BSD version=10.6.0 groups=com.quarn.a,com.quarn.b date=2009-08-28T10:00:00Z
    dir /usr/bin
    file /usr/bin/ls size=34000 mode=0755   # trailing comment
    entry /usr/lib/gone type=file mode=0644
    generate 10 /usr/share/man fanout=4
)";

void describeByCalls(VolumeBuilder& volume) {
    volume.systemVersion("10.6.8").user("alice", 501, 20);
    volume.directory("/Library/Caches", {.mode = 0700, .owner = 0, .group = 80});
    volume.file("/etc/motd", 12, {.text = "hello world\n"});
    volume.file("/var/vm/swap", 1048576);
    volume.file("/var/log/system.log", 5000, {.mode = 0640, .owner = 0, .group = 4, .fill = true});
    volume.symlink("/usr/bin/sh", "bash");
    volume.package("com.quarn.pkg.BSD")
        .version("10.6.0")
        .groups({"com.quarn.a", "com.quarn.b"})
        .installDate(*platform::Date::fromISO8601("2009-08-28T10:00:00Z"))
        .directory("/usr/bin")
        .file("/usr/bin/ls", 34000, {.mode = 0755})
        .entry("/usr/lib/gone", "file", {.mode = 0644})
        .generate(10, "/usr/share/man", 4);
}

}  // namespace

TEST(VolumeBuilder, ItemsHaveTheirSizesModesOwnersAndTargets) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    describeByCalls(volume);
    volume.build();

    EXPECT_EQ("directory 4096 700 0 80 'Library/Caches'\n", statOf(dir, "Library/Caches"));
    EXPECT_EQ("regular file 12 644 0 0 'etc/motd'\n", statOf(dir, "etc/motd"));
    EXPECT_EQ("hello world\n", testsupport::readFile(dir / "etc/motd"));
    EXPECT_EQ("regular file 1048576 644 0 0 'var/vm/swap'\n", statOf(dir, "var/vm/swap"));
    EXPECT_EQ("0\n", runCommand("stat -c %b '" + dir / "var/vm/swap" + "'")) << "sparse";
    EXPECT_EQ("regular file 5000 640 0 4 'var/log/system.log'\n", statOf(dir, "var/log/system.log"));
    EXPECT_NE("0\n", runCommand("stat -c %b '" + dir / "var/log/system.log" + "'")) << "real content";
    EXPECT_EQ("symbolic link 4 777 0 0 'usr/bin/sh' -> 'bash'\n", statOf(dir, "usr/bin/sh"));
    EXPECT_EQ("directory 4096 755 501 20 'Users/alice'\n", statOf(dir, "Users/alice"));
    EXPECT_EQ("directory 4096 755 501 20 'Users/alice/Library/Preferences'\n",
              statOf(dir, "Users/alice/Library/Preferences"));
    auto version = platform::plist::readDictionaryFile(dir / "System/Library/CoreServices/SystemVersion.plist");
    ASSERT_TRUE(version);
    EXPECT_EQ("10.6.8", *version->findString("ProductVersion"));
    EXPECT_FALSE(platform::fs::existsNoFollow(dir / ".volumebuilder"));

    // The package's items are on disk, its BOM-only entries are not, and its BOM lists all.
    EXPECT_EQ("regular file 34000 755 0 0 'usr/bin/ls'\n", statOf(dir, "usr/bin/ls"));
    EXPECT_FALSE(platform::fs::existsNoFollow(dir / "usr/lib/gone"));
    EXPECT_FALSE(platform::fs::existsNoFollow(dir / "usr/share/man"));
    auto receipt = CWReceipt::receiptWithIdentifier("com.quarn.pkg.BSD", dir.path());
    ASSERT_NE(nullptr, receipt);
    EXPECT_EQ((std::vector<std::string>{"usr",
                                        "usr/bin",
                                        "usr/bin/ls",
                                        "usr/lib",
                                        "usr/lib/gone",
                                        "usr/share",
                                        "usr/share/man",
                                        "usr/share/man/d00000",
                                        "usr/share/man/d00000/f00000",
                                        "usr/share/man/d00000/f00001",
                                        "usr/share/man/d00000/f00002",
                                        "usr/share/man/d00000/f00003",
                                        "usr/share/man/d00001",
                                        "usr/share/man/d00001/f00000",
                                        "usr/share/man/d00001/f00001",
                                        "usr/share/man/d00001/f00002",
                                        "usr/share/man/d00001/f00003",
                                        "usr/share/man/d00002",
                                        "usr/share/man/d00002/f00000",
                                        "usr/share/man/d00002/f00001"}),
              receipttests::bomPaths(*receipt));
    EXPECT_EQ(0644u, receipt->_attributesOfItemAtPath("usr/lib/gone")->find(platform::fs::kFilePosixPermissions)
                         ->unsignedInteger());
    EXPECT_EQ(20u, volume.bomEntryCount());
    EXPECT_EQ("10.6.0", receipt->packageVersion());
    EXPECT_EQ((std::vector<std::string>{"com.quarn.a", "com.quarn.b"}), receipt->packageGroups());
    EXPECT_EQ("2009-08-28T10:00:00Z", receipt->installDate()->iso8601());
}

TEST(VolumeBuilder, BuilderCallsAndTextFormatAgree) {
    TempDir byCalls, byText;
    VolumeBuilder first(byCalls / "root");
    describeByCalls(first);
    first.build();
    testsupport::writeFile(byText / "volume.txt", kDescription);
    VolumeBuilder second(byText / "root");
    second.loadFile(byText / "volume.txt");
    second.build();

    std::string expected = listing(byCalls / "root");
    EXPECT_NE(std::string::npos, expected.find("usr/bin/ls f 34000 755 0 0"));
    EXPECT_EQ(expected, listing(byText / "root"));
    EXPECT_EQ(first.bomEntryCount(), second.bomEntryCount());
    auto a = CWReceipt::_findReceiptsOnVolumeAtPath(byCalls / "root");
    auto b = CWReceipt::_findReceiptsOnVolumeAtPath(byText / "root");
    ASSERT_EQ(1u, a.size());
    ASSERT_EQ(1u, b.size());
    EXPECT_EQ(a[0]->packageGroups(), b[0]->packageGroups());
    EXPECT_EQ(a[0]->installDate(), b[0]->installDate());
    EXPECT_EQ(receipttests::bomPaths(*a[0]), receipttests::bomPaths(*b[0]));
}

TEST(VolumeBuilder, DescriptionErrorsNameTheLine) {
    auto errorOf = [](const std::string& text) -> std::string {
        TempDir dir;
        try {
            VolumeBuilder(dir.path()).load(text, "vol");
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "no error";
    };
    EXPECT_EQ("vol:2: unknown keyword flie", errorOf("dir /a\nflie /b size=3\n"));
    EXPECT_EQ("vol:1: size 12k is not a number", errorOf("file /b size=12k"));
    EXPECT_EQ("vol:1: mode 0999 is not a number", errorOf("dir /b mode=0999"));
    EXPECT_EQ("vol:4: an indented line needs a package or bundle above it",
              errorOf("package p\n    entry /x\nsystem 1\n    entry /y\n"));
    EXPECT_EQ("vol:1: unterminated quote", errorOf("file /b text=\"open"));
    EXPECT_EQ("vol:1: unknown option colour", errorOf("dir /b colour=red"));
    EXPECT_EQ("vol:1: expected: link PATH TARGET [options]", errorOf("link /b"));
    EXPECT_EQ("vol:1: in=elsewhere: expected secure, library or boms", errorOf("package p in=elsewhere"));
    EXPECT_EQ("vol:2: unknown package item user", errorOf("package p\n  user x\n"));
    EXPECT_EQ("vol:1: date=yesterday is not an ISO 8601 date", errorOf("package p date=yesterday"));
    EXPECT_EQ("no error", errorOf("# only a comment\n\n   \nsystem 10.7 # and a note\n"));
}

TEST(VolumeBuilder, TheProjectSampleVolumeBuilds) {
    const std::string description = FERRYHOLD_SOURCE_DIR "/samples/sample.volume";
    TempDir dir;
    VolumeBuilder volume(dir / "v");
    volume.loadFile(description);
    volume.build();

    // Every package and bundle the description names has its receipt on the volume.
    std::stringstream lines(testsupport::readFile(description));
    size_t described = 0;
    for (std::string line; std::getline(lines, line);) {
        auto words = testsupport::splitDescriptionLine(line);
        if (words.size() < 2 || (words[0] != "package" && words[0] != "bundle")) continue;
        ++described;
        std::string identifier = words[1];
        for (const auto& word : words)
            if (words[0] == "bundle" && word.rfind("identifier=", 0) == 0) identifier = word.substr(11);
        EXPECT_NE(nullptr, CWReceipt::receiptWithIdentifier(identifier, dir / "v")) << identifier;
    }
    EXPECT_GT(described, 0u);
    EXPECT_EQ(described, CWReceipt::receiptsOnVolumeAtPath(dir / "v").size());
}

TEST(VolumeBuilder, PackagesRecordChecksumsAndACLsOfTheirFiles) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.load(R"(package com.vendor.recorded checksums acls
    file /usr/bin/grep size=45000 fill
    file /usr/share/shared size=10 acl=user::rw-,user:77:r--,group::r--,mask::r--,other::---
    entry /usr/share/listed
)");
    volume.build();
    auto receipt = CWReceipt::receiptWithIdentifier("com.vendor.recorded", dir.path());
    ASSERT_NE(nullptr, receipt);
    auto grepSum = receipt->_SHA1ChecksumDataOfItemAtPath("usr/bin/grep");
    ASSERT_TRUE(grepSum);
    EXPECT_EQ(runCommand("sha1sum '" + dir / "usr/bin/grep" + "' | cut -c1-40"), platform::digest::hex(*grepSum) + "\n");
    EXPECT_TRUE(receipt->_SHA1ChecksumDataOfItemAtPath("usr/share/shared"));
    EXPECT_EQ(std::nullopt, receipt->_SHA1ChecksumDataOfItemAtPath("usr/share/listed"));
    auto acl = receipt->_ACLStringOfItemAtPath("usr/share/shared");
    ASSERT_TRUE(acl);
    EXPECT_NE(std::string::npos, acl->find("user:77:r--")) << *acl;
    EXPECT_EQ(std::nullopt, receipt->_ACLStringOfItemAtPath("usr/bin/grep"));
}

// The size the benchmark volume needs: 120 packages listing 400,000 entries in all.
TEST(VolumeBuilder, ALargeVolumeBuildsInSeconds) {
    TempDir dir;
    VolumeBuilder volume(dir.path());
    volume.systemVersion("10.6.8");
    for (int i = 0; i < 120; ++i)
        volume.package(fmt::format("com.quarn.pkg.Part{:03}", i))
            .groups({"com.quarn.FindSystemFiles.pkg-group"})
            .file(fmt::format("/usr/lib/part{:03}.dylib", i), 100000)
            .generate(3300, fmt::format("/System/Library/Part{:03}", i), 100);
    auto start = std::chrono::steady_clock::now();
    volume.build();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("built %zu BOM entries in 120 receipts in %.2f s\n", volume.bomEntryCount(), seconds);

    // Each package: its file, 3300 generated files in 33 folders, and the folders above them
    // (usr, usr/lib, System, System/Library, its own folder).
    EXPECT_EQ(120u * (1 + 3300 + 33 + 5), volume.bomEntryCount());
    auto receipts = CWReceipt::_findReceiptsOnVolumeAtPath(dir.path());
    ASSERT_EQ(120u, receipts.size());
    size_t listed = 0;
    for (const auto& receipt : receipts) {
        auto bom = receipt->_BOM();
        ASSERT_NE(nullptr, bom);
        listed += bom->fileCount() - 1;  // the root is not an entry of the package
        receipt->_freeBOM();
    }
    EXPECT_EQ(volume.bomEntryCount(), listed);
}
