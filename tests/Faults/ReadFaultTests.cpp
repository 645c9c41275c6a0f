// Files that cannot be read whole: an I/O error or an early end partway through a BOM,
// a receipt's property list, an archive and the system path cache, made by the
// platform's read seam. Each reader reports the file it could not read (no object, an
// error, no answer) and never hands back what it made of the part it saw.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <sys/stat.h>

#include "BOMTestSupport.h"
#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FHPathAnalysis/FindSystemFiles/FHSystemPathCache.h"
#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/MappedFile.h"
#include "Platform/PropertyList.h"
#include "Platform/ReadFault.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using platform::fs::ReadFault;
using platform::fs::ScopedReadFault;
using testsupport::readFile;
using testsupport::TempDir;
using testsupport::writeFile;

namespace {

// The faults tried on a file of `size` bytes: an I/O error and an early end at seven
// points through it, the first and the last byte included.
std::vector<ReadFault> faultsThrough(const std::string& suffix, uint64_t size) {
    std::vector<ReadFault> faults;
    for (uint64_t offset : {uint64_t(0), size / 8, size / 4, size / 2, size * 3 / 4, size - 16, size - 1})
        for (int code : {EIO, 0}) faults.push_back({suffix, offset, code});
    return faults;
}

std::string describe(const ReadFault& fault) {
    return (fault.errorCode ? std::string(strerror(fault.errorCode)) : std::string("the end")) + " at byte " +
           std::to_string(fault.offset);
}

std::string randomBytes(size_t size, uint64_t seed) {
    std::string bytes(size, '\0');
    std::mt19937_64 generator(seed);
    for (auto& c : bytes) c = char(generator());
    return bytes;
}

}  // namespace

TEST(ReadFault, TheSeamCutsReadsWhereItIsToldAndOnlyThere) {
    TempDir dir;
    writeFile(dir / "a.bin", std::string(1000, 'a'));
    writeFile(dir / "b.bin", std::string(1000, 'b'));
    {
        ScopedReadFault fault({"a.bin", 600, EIO});
        platform::Error error;
        EXPECT_FALSE(platform::fs::readFile(dir / "a.bin", &error));
        EXPECT_EQ(EIO, error.code);
        EXPECT_NE(std::string::npos, error.description().find(dir / "a.bin")) << error.description();
        EXPECT_EQ(1000u, platform::fs::readFile(dir / "b.bin")->size());
        // Bytes before the fault read as they are.
        auto file = platform::fs::File::open(dir / "a.bin");
        ASSERT_TRUE(file);
        std::vector<uint8_t> head(600);
        EXPECT_TRUE(file->readExactlyAt(0, head));
        EXPECT_FALSE(file->readExactlyAt(500, head));
    }
    {
        ScopedReadFault fault({"a.bin", 600, 0});
        EXPECT_EQ(600u, platform::fs::readFile(dir / "a.bin")->size());
        auto mapped = platform::MappedFile::open(dir / "a.bin");
        ASSERT_TRUE(mapped);
        EXPECT_EQ(600u, mapped->bytes().size());
    }
    EXPECT_EQ(1000u, platform::fs::readFile(dir / "a.bin")->size());
}

TEST(ReadFault, ABomThatCannotBeReadWholeIsNotOpened) {
    TempDir dir;
    std::string path = dir / "sample.bom";
    bomtest::SampleBOM sample(path);
    sample.directory("usr").directory("usr/bin");
    for (int i = 0; i < 300; ++i)
        sample.file("usr/bin/tool" + std::to_string(i), uint64_t(100 + i), uint32_t(i * 7919));
    sample.commit();
    auto whole = crateworks::CWBOM::initWithBOMPath(path);
    ASSERT_TRUE(whole);
    auto expected = bomtest::walk(whole);
    ASSERT_EQ(302u, expected.size());

    for (const auto& fault : faultsThrough("sample.bom", platform::fs::fileSize(path).value())) {
        ScopedReadFault armed(fault);
        auto bom = crateworks::CWBOM::initWithBOMPath(path);
        // Either refused, or every entry is there: never a BOM made of the part that was read.
        if (bom) {
            EXPECT_EQ(expected, bomtest::walk(bom)) << describe(fault);
        }
        if (fault.offset == 0) {
            EXPECT_FALSE(bom) << describe(fault);
        }
    }
}

TEST(ReadFault, AReceiptWhosePropertyListCannotBeReadKeepsNothingOfIt) {
    TempDir dir;
    std::filesystem::create_directories(dir / "receipts");
    std::string bom = dir / "receipts/com.example.tool.bom";
    bomtest::SampleBOM(bom).directory("usr").file("usr/tool", 10).commit();
    platform::Array groups;
    for (int i = 0; i < 200; ++i) groups.push_back(platform::Value("com.example.group" + std::to_string(i)));
    platform::Dictionary dictionary{{"PackageIdentifier", "com.example.tool"},
                                    {"PackageVersion", "3.2.1"},
                                    {"PackageGroups", groups},
                                    {"InstallPrefixPath", "/"}};
    for (bool binary : {false, true}) {
        std::string plist = dir / "receipts/com.example.tool.plist";
        if (binary) {
            auto bytes = platform::plist::toBinary(platform::Value(dictionary));
            ASSERT_TRUE(platform::fs::writeFileAtomically(plist, bytes));
        } else {
            ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(dictionary), plist));
        }
        auto whole = crateworks::CWReceipt::initWithBOMPath(bom);
        ASSERT_TRUE(whole);
        ASSERT_EQ("3.2.1", whole->packageVersion().value_or(""));
        ASSERT_EQ(200u, whole->packageGroups().value_or(std::vector<std::string>{}).size());

        for (const auto& fault : faultsThrough("com.example.tool.plist", platform::fs::fileSize(plist).value())) {
            ScopedReadFault armed(fault);
            auto receipt = crateworks::CWReceipt::initWithBOMPath(bom);
            // The receipt stands on its BOM; the unreadable list is as good as none.
            ASSERT_TRUE(receipt) << describe(fault);
            EXPECT_EQ("com.example.tool", receipt->packageIdentifier().value_or("")) << describe(fault);
            // All of it or none of it: only a cut that loses nothing but the closing
            // line break may still be read whole.
            bool whole = receipt->packageVersion() == std::optional<std::string>("3.2.1") &&
                         receipt->packageGroups().value_or(std::vector<std::string>{}).size() == 200;
            bool none = !receipt->packageVersion() && !receipt->packageGroups();
            EXPECT_TRUE(whole || none) << describe(fault) << (binary ? " (binary)" : " (XML)");
            if (fault.offset + 16 <= platform::fs::fileSize(plist).value()) {
                EXPECT_TRUE(none) << describe(fault) << (binary ? " (binary)" : " (XML)");
            }
        }
    }
}

TEST(ReadFault, AnArchiveThatFailsHalfwayIsRefusedOrItsEntryFails) {
    TempDir dir;
    std::string big = randomBytes(256 << 10, 11);
    writeFile(dir / "src/big.bin", big);
    writeFile(dir / "src/a-small.txt", "small\n");
    std::string archive = dir / "pkg.xar";
    int status = -1;
    std::string output = xartest::runTool("xar create --store " + xartest::shellQuote(archive) + " " +
                                              xartest::shellQuote(dir / "src"),
                                          &status);
    ASSERT_EQ(0, status) << output;
    uint64_t size = platform::fs::fileSize(archive).value();

    // Inside the header or the table of contents: the archive does not open, and says why.
    for (int code : {EIO, 0}) {
        for (uint64_t offset : {uint64_t(10), uint64_t(40), uint64_t(200)}) {
            ReadFault fault{"pkg.xar", offset, code};
            ScopedReadFault armed(fault);
            platform::Error error;
            EXPECT_FALSE(crateworks::CWXARArchive::initForReadingFromPath(archive, &error)) << describe(fault);
            EXPECT_FALSE(error.description().empty()) << describe(fault);
        }
    }
    // Inside big.bin's data, whose bytes are most of the archive's end: its data is not
    // handed back and its extraction fails, with nothing at the destination.
    for (int code : {EIO, 0}) {
        ReadFault fault{"pkg.xar", size - big.size() / 2, code};
        auto opened = crateworks::CWXARArchive::initForReadingFromPath(archive);
        ASSERT_TRUE(opened);
        ASSERT_EQ(big.size(), opened->dataForPath("big.bin").value_or(platform::Data{}).size());
        ScopedReadFault armed(fault);
        EXPECT_FALSE(opened->dataForPath("big.bin")) << describe(fault);
        std::filesystem::create_directories(dir / "out");
        platform::Error error;
        EXPECT_FALSE(opened->_extractFile("big.bin", dir / "out/big.bin", &error)) << describe(fault);
        EXPECT_FALSE(error.description().empty()) << describe(fault);
        EXPECT_FALSE(platform::fs::existsNoFollow(dir / "out/big.bin")) << describe(fault);
        EXPECT_EQ(std::vector<std::string>{}, platform::fs::contentsOfDirectory(dir / "out").value())
            << describe(fault);
        // The small file, stored before the fault, still comes out whole.
        auto small = opened->dataForPath("a-small.txt").value_or(platform::Data{});
        EXPECT_EQ("small\n", std::string(small.begin(), small.end())) << describe(fault);
    }
}

TEST(ReadFault, ASystemPathCacheThatCannotBeReadWholeIsNotBelieved) {
    TempDir dir;
    std::string root = dir / "volume";
    std::filesystem::create_directories(root + "/Library/Caches");
    platform::Array paths;
    for (int i = 0; i < 500; ++i) paths.push_back(platform::Value("/usr/lib/lib" + std::to_string(i) + ".dylib"));
    platform::Dictionary cache{{"systemPaths", paths}, {"MigrationDatabaseVersion", "999"}};
    FHSystemPathCache reader(root, platform::Date{platform::Date::now().secondsSince1970 - 3600});
    ASSERT_TRUE(platform::plist::writeXMLFile(platform::Value(cache), reader.path()));
    ASSERT_EQ(0, chown(reader.path().c_str(), 0, 0));
    ASSERT_EQ(0, chmod(reader.path().c_str(), 0644));
    auto whole = reader.read();
    ASSERT_TRUE(whole) << "the cache as written is believed";
    ASSERT_EQ(500u, whole->size());

    for (const auto& fault : faultsThrough("com.quarn.FindSystemFiles.plist",
                                           platform::fs::fileSize(reader.path()).value())) {
        ScopedReadFault armed(fault);
        auto paths = reader.read();
        // Believed only whole: a cut that loses nothing but the closing line break may be.
        if (paths) {
            EXPECT_EQ(*whole, *paths) << describe(fault);
        }
        if (fault.offset + 16 <= platform::fs::fileSize(reader.path()).value()) {
            EXPECT_FALSE(paths) << describe(fault);
        }
    }
}
