// Extracting a whole archive: many files written by the two writing threads, every one
// whole, and of several damaged entries the first in TOC order reported, whichever
// thread met its damage first.
#include <gtest/gtest.h>

#include <filesystem>
#include <fmt/format.h>
#include <map>
#include <random>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/Archive/xar/XarExtractor.h"
#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "CrateworksCore/Package_API/Archive/xar/XarWriter.h"
#include "Platform/Error.h"
#include "Platform/ExtractionRoot.h"
#include "XarTestSupport.h"
#include "support/TempDir.h"

using crateworks::xar::XarExtractor;
using crateworks::xar::XarReader;
using crateworks::xar::XarWriter;
using testsupport::readFile;
using testsupport::TempDir;

namespace {

constexpr int kFolders = 3, kFilesPerFolder = 30;

std::string fileName(int folder, int file) { return fmt::format("d{}/f{:02}", folder, file); }

// Three folders of thirty files each, of assorted sizes (some empty, some spanning
// several encoder blocks), the first folder stored and the others compressed: many runs
// of files for each writing thread. Answers every file's path and bytes.
std::map<std::string, std::string> writeArchive(const std::string& path) {
    std::map<std::string, std::string> files;
    platform::Error error;
    auto writer = XarWriter::open(path, &error);
    EXPECT_TRUE(writer) << error.description();
    if (!writer) return files;
    std::mt19937 random(7);
    for (int folder = 0; folder < kFolders; ++folder) {
        EXPECT_TRUE(writer->setOption("compression", folder == 0 ? "none" : "gzip"));
        auto parent = writer->addFolder(nullptr, fmt::format("d{}", folder), 0750, &error);
        EXPECT_TRUE(parent) << error.description();
        for (int i = 0; i < kFilesPerFolder; ++i) {
            size_t size = i % 10 == 0 ? 0 : random() % (i % 3 == 0 ? 200'000 : 5'000);
            std::string bytes(size, '\0');
            // Compressible and distinct: runs of one byte with the file's number between.
            for (size_t k = 0; k < size; ++k) bytes[k] = k % 97 == 0 ? char(random()) : char('a' + i % 26);
            auto entry = writer->addFromBuffer(parent, fmt::format("f{:02}", i),
                                               std::span(reinterpret_cast<const uint8_t*>(bytes.data()), size), &error);
            EXPECT_TRUE(entry) << error.description();
            files.emplace(fileName(folder, i), std::move(bytes));
        }
    }
    EXPECT_TRUE(writer->close(&error)) << error.description();
    return files;
}

struct Extraction {
    bool extracted = false;
    std::string failedPath;
    platform::Error error;
};

Extraction extractAll(const std::string& archive, const std::string& destination) {
    Extraction result;
    auto reader = XarReader::open(archive, &result.error);
    EXPECT_TRUE(reader) << result.error.description();
    auto root = platform::ExtractionRoot::open(destination, true, &result.error);
    EXPECT_TRUE(root) << result.error.description();
    if (!reader || !root) return result;
    XarExtractor extractor(*reader, *root);
    result.extracted = extractor.extractAll(&result.failedPath, &result.error);
    return result;
}

}  // namespace

TEST(XarExtractAll, EveryOneOfManyFilesArrivesWholeBesideItsFoldersWithTheirModes) {
    TempDir dir;
    std::string archive = dir / "many.xar", out = dir / "out";
    auto files = writeArchive(archive);
    ASSERT_EQ(files.size(), size_t(kFolders * kFilesPerFolder));
    Extraction result = extractAll(archive, out);
    ASSERT_TRUE(result.extracted) << result.failedPath << ": " << result.error.description();
    for (const auto& [path, bytes] : files) EXPECT_TRUE(readFile(out + "/" + path) == bytes) << path;
    size_t entries = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::recursive_directory_iterator(out)) ++entries;
    EXPECT_EQ(entries, files.size() + kFolders) << "temporary files left behind";
    for (int folder = 0; folder < kFolders; ++folder) {
        struct stat st {};
        ASSERT_EQ(stat((out + fmt::format("/d{}", folder)).c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0750u);
    }
}

TEST(XarExtractAll, OfSeveralDamagedEntriesTheFirstInTocOrderIsReportedAndNoneLeavesAFile) {
    TempDir dir;
    std::string archive = dir / "damaged.xar";
    auto files = writeArchive(archive);
    // One damaged entry in each thread's first run of files, and one near the end: the
    // later ones may well be met first.
    const std::vector<std::string> damaged{fileName(0, 5), fileName(0, 11), fileName(2, 27)};
    {
        auto reader = XarReader::open(archive);
        ASSERT_TRUE(reader);
        std::vector<std::string> checksums;
        for (const auto& path : damaged) {
            auto entry = reader->find(path);
            ASSERT_TRUE(entry && entry->data) << path;
            checksums.push_back(entry->data->extractedChecksum);
        }
        xartest::editToc(archive, [&](std::string& xml) {
            for (const auto& sum : checksums) {
                std::string wrong = sum;
                wrong[0] = wrong[0] == '0' ? '1' : '0';
                // Both checksums of a stored entry are the same text; changing every
                // occurrence damages the entry whichever one is checked.
                for (auto at = xml.find(sum); at != std::string::npos; at = xml.find(sum, at + 1))
                    xml.replace(at, sum.size(), wrong);
            }
        });
    }
    // The threads race for runs of files; the answer must not depend on who wins.
    for (int round = 0; round < 5; ++round) {
        std::string out = dir / fmt::format("out{}", round);
        Extraction result = extractAll(archive, out);
        EXPECT_FALSE(result.extracted);
        EXPECT_EQ(result.failedPath, damaged[0]);
        EXPECT_EQ(result.error.code, platform::kFileReadCorruptFileError) << result.error.description();
        for (const auto& path : damaged) EXPECT_FALSE(std::filesystem::exists(out + "/" + path)) << path;
        // Whatever did arrive is whole.
        for (const auto& [path, bytes] : files) {
            if (std::filesystem::exists(out + "/" + path)) {
                EXPECT_TRUE(readFile(out + "/" + path) == bytes) << path;
            }
        }
    }
}
