// The 32-bit file checksum of BOM files: the POSIX cksum CRC (polynomial 0x04C11DB7,
// most significant bit first, initial value 0, the data followed by its length in
// bytes, least significant byte first and only as many bytes as the length needs,
// the result complemented). The cksum command prints the same number.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace platform::checksum {

// Accumulates the CRC over bytes handed in piece by piece.
class Crc32 {
public:
    void update(std::span<const uint8_t> bytes);
    // The checksum of everything handed in so far; update() may go on afterwards.
    uint32_t value() const;

private:
    uint32_t crc_ = 0;
    uint64_t length_ = 0;
};

uint32_t compute(std::span<const uint8_t> bytes);
// The checksum of a file's contents; absent when it cannot be opened or read.
std::optional<uint32_t> ofFile(const std::string& path);

}  // namespace platform::checksum
