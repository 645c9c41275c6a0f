// Replays the BOM fuzz target's seed corpus, and damaged copies of each seed, through
// the target's own entry function, so that every compiler's build exercises it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "BOMTestSupport.h"
#include "support/TempDir.h"

// The fuzz target itself: its LLVMFuzzerTestOneInput becomes part of this program.
#include "fuzz/fuzz_bom.cpp"

namespace {

const std::string kCorpus = FERRYHOLD_SOURCE_DIR "/fuzz/corpus/fuzz_bom";

// The committed seeds are exactly what the writer makes today. Set
// FERRYHOLD_WRITE_FUZZ_CORPUS=1 to write them afresh after a deliberate format change.
TEST(FuzzBOMCorpus, SeedsAreTheWritersOutput) {
    testsupport::TempDir scratch;
    auto seeds = bomtest::seedCorpus(scratch.path());
    if (const char* write = std::getenv("FERRYHOLD_WRITE_FUZZ_CORPUS"); write && std::string(write) == "1") {
        for (auto& [name, bytes] : seeds)
            testsupport::writeFile(kCorpus + "/" + name, std::string(bytes.begin(), bytes.end()));
    }
    for (auto& [name, bytes] : seeds) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(std::filesystem::exists(kCorpus + "/" + name));
        EXPECT_EQ(bytes, bomtest::readBytes(kCorpus + "/" + name));
    }
}

TEST(FuzzBOMCorpus, SeedsTruncationsAndByteFlipsRunCleanly) {
    size_t seeds = 0, opened = 0;
    for (const auto& file : std::filesystem::directory_iterator(kCorpus)) {
        SCOPED_TRACE(file.path().string());
        std::vector<uint8_t> seed = bomtest::readBytes(file.path());
        ++seeds;
        opened += crateworks::CWBOM::initWithBOMData(platform::Data(seed)) != nullptr;
        EXPECT_EQ(0, LLVMFuzzerTestOneInput(seed.data(), seed.size()));
        for (size_t length = 0; length < seed.size(); length += 1 + length / 64)
            EXPECT_EQ(0, LLVMFuzzerTestOneInput(seed.data(), length));
        // Every byte of the header and of the block and variables tables, and a spread of
        // the rest, flipped one at a time.
        bomtest::BOMBytes layout(seed);
        size_t tables = layout.u32(16);
        for (size_t at = 0; at < seed.size(); ++at) {
            if (at >= 32 && at < tables && at % 7 != 0) continue;
            std::vector<uint8_t> damaged = seed;
            damaged[at] ^= uint8_t(0x5a + at);
            EXPECT_EQ(0, LLVMFuzzerTestOneInput(damaged.data(), damaged.size()));
        }
    }
    EXPECT_GE(seeds, 5u);
    EXPECT_EQ(seeds, opened);  // every seed is itself a sound BOM
}

}  // namespace
