// The BOM checksum against the cksum command, for files of several sizes.
#include <gtest/gtest.h>

#include <random>

#include "Platform/Checksum.h"
#include "support/TempDir.h"

namespace {

using platform::checksum::Crc32;

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = char(random());
    return bytes;
}

uint32_t cksumOf(const std::string& path) {
    int status = -1;
    std::string out = testsupport::runCommand("cksum '" + path + "'", &status);
    EXPECT_EQ(0, status);
    return uint32_t(std::stoul(out));
}

std::span<const uint8_t> span(const std::string& s) {
    return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

TEST(Checksum, MatchesCksumForFilesOfManySizes) {
    testsupport::TempDir dir;
    for (size_t size : {0, 1, 3, 4, 5, 255, 256, 257, 65535, 65536, 65537, (1 << 20) + 13}) {
        SCOPED_TRACE(size);
        std::string path = dir / ("f" + std::to_string(size));
        std::string bytes = randomBytes(size, unsigned(size));
        testsupport::writeFile(path, bytes);
        uint32_t expected = cksumOf(path);
        EXPECT_EQ(expected, platform::checksum::compute(span(bytes)));
        EXPECT_EQ(expected, platform::checksum::ofFile(path));
    }
}

TEST(Checksum, PiecewiseEqualsWhole) {
    std::string bytes = randomBytes(100000, 7);
    uint32_t whole = platform::checksum::compute(span(bytes));
    for (size_t piece : {1, 3, 4096, 99999}) {
        Crc32 crc;
        for (size_t at = 0; at < bytes.size(); at += piece) crc.update(span(bytes).subspan(at, std::min(piece, bytes.size() - at)));
        EXPECT_EQ(whole, crc.value()) << piece;
    }
    // The length is folded in only when the value is read, so reading does not disturb it.
    Crc32 crc;
    crc.update(span(bytes).first(10));
    (void)crc.value();
    crc.update(span(bytes).subspan(10));
    EXPECT_EQ(whole, crc.value());
    EXPECT_EQ(4294967295u, Crc32().value());  // what cksum prints for an empty file
}

TEST(Checksum, UnreadableFilesHaveNone) {
    testsupport::TempDir dir;
    EXPECT_EQ(std::nullopt, platform::checksum::ofFile(dir / "missing"));
    EXPECT_EQ(std::nullopt, platform::checksum::ofFile(dir.path()));  // a directory cannot be read
}

}  // namespace
