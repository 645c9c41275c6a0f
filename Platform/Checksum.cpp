#include "Platform/Checksum.h"

#include <array>

#include "Platform/FileSystem.h"

namespace platform::checksum {

namespace {
// Four tables so that the loop consumes four bytes per step.
using Tables = std::array<std::array<uint32_t, 256>, 4>;

Tables makeTables() {
    Tables t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i << 24;
        for (int bit = 0; bit < 8; ++bit) c = (c & 0x80000000u) ? (c << 1) ^ 0x04C11DB7u : c << 1;
        t[0][i] = c;
    }
    for (uint32_t i = 0; i < 256; ++i)
        for (size_t k = 1; k < 4; ++k) t[k][i] = (t[k - 1][i] << 8) ^ t[0][t[k - 1][i] >> 24];
    return t;
}

const Tables& tables() {
    static const Tables t = makeTables();
    return t;
}

uint32_t feed(uint32_t crc, const uint8_t* p, size_t n) {
    const Tables& t = tables();
    while (n >= 4) {
        crc ^= uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
        crc = t[3][crc >> 24] ^ t[2][(crc >> 16) & 0xff] ^ t[1][(crc >> 8) & 0xff] ^ t[0][crc & 0xff];
        p += 4;
        n -= 4;
    }
    while (n--) crc = (crc << 8) ^ t[0][(crc >> 24) ^ *p++];
    return crc;
}
}  // namespace

void Crc32::update(std::span<const uint8_t> bytes) {
    crc_ = feed(crc_, bytes.data(), bytes.size());
    length_ += bytes.size();
}

uint32_t Crc32::value() const {
    uint32_t crc = crc_;
    for (uint64_t n = length_; n != 0; n >>= 8) {
        uint8_t byte = uint8_t(n & 0xff);
        crc = feed(crc, &byte, 1);
    }
    return ~crc;
}

uint32_t compute(std::span<const uint8_t> bytes) {
    Crc32 crc;
    crc.update(bytes);
    return crc.value();
}

std::optional<uint32_t> ofFile(const std::string& path) {
    Crc32 crc;
    bool read = fs::readInChunks(path, size_t(1) << 16, [&](std::span<const uint8_t> chunk) {
        crc.update(chunk);
        return true;
    });
    if (!read) return std::nullopt;
    return crc.value();
}

}  // namespace platform::checksum
