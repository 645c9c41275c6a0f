// Replays the XAR fuzz target's seed corpus, cut short and with flipped bytes, through
// the fuzz entry function: nothing may crash, hang or leave files behind.
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "support/TempDir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

int feed(const std::string& bytes) {
    return LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

TEST(XarFuzzReplay, CorpusTruncationsAndFlippedBytes) {
    testsupport::TempDir tmp;
    setenv("TMPDIR", tmp.path().c_str(), 1);  // the entry function's scratch files go here
    std::vector<std::filesystem::path> corpus;
    for (const auto& item : std::filesystem::directory_iterator(std::string(FERRYHOLD_SOURCE_DIR) + "/fuzz/corpus/fuzz_xar"))
        corpus.push_back(item.path());
    ASSERT_GE(corpus.size(), 6u);
    size_t opened = 0;
    for (const auto& file : corpus) {
        std::string bytes = testsupport::readFile(file.string());
        ASSERT_FALSE(bytes.empty()) << file;
        // Every seed is a sound archive.
        testsupport::writeFile(tmp / "seed.xar", bytes);
        auto archive = crateworks::CWXARArchive::initForReadingFromPath(tmp / "seed.xar");
        ASSERT_TRUE(archive) << file;
        EXPECT_TRUE(archive->verifyReturningError(nullptr)) << file;
        opened += 1;
        archive.reset();
        std::filesystem::remove(tmp / "seed.xar");

        EXPECT_EQ(0, feed(bytes));
        for (size_t cut = 0; cut < bytes.size(); cut += std::max<size_t>(1, bytes.size() / 48)) EXPECT_EQ(0, feed(bytes.substr(0, cut)));
        for (size_t at = 0; at < bytes.size(); at += std::max<size_t>(1, bytes.size() / 96)) {
            for (uint8_t mask : {0x01, 0x80, 0xff}) {
                std::string flipped = bytes;
                flipped[at] = char(flipped[at] ^ mask);
                EXPECT_EQ(0, feed(flipped));
            }
        }
    }
    EXPECT_EQ(corpus.size(), opened);
    // Scratch files are removed after every input.
    EXPECT_TRUE(std::filesystem::is_empty(tmp.path()));
    unsetenv("TMPDIR");
}

}  // namespace
