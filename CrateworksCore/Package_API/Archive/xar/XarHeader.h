// The fixed header at the front of a XAR archive: magic, header size, version, the
// TOC's two lengths and its checksum algorithm, big-endian.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "Platform/Digest.h"

namespace crateworks::xar {

struct Header {
    uint64_t headerSize = 0;  // where the TOC starts
    uint64_t compressedTOCLength = 0;
    uint64_t uncompressedTOCLength = 0;
    uint32_t algorithmCode = 0;
};

inline constexpr uint32_t kHeaderMagic = 0x78617221;  // "xar!"
inline constexpr size_t kNamedAlgorithmLength = 36;
enum HeaderAlgorithm : uint32_t { kAlgorithmNone = 0, kAlgorithmSHA1 = 1, kAlgorithmMD5 = 2, kAlgorithmNamed = 3,
                                  kAlgorithmSHA512 = 4 };

// The first kMinHeaderSize bytes read; absent with a diagnostic when they are no XAR header.
std::optional<Header> parseHeader(std::span<const uint8_t> bytes, std::string* diagnostic);
// The header bytes a writer puts in front of a TOC checksummed with `tocStyle`.
std::string serializeHeader(const std::string& tocStyle, uint64_t compressedLength, uint64_t uncompressedLength);

}  // namespace crateworks::xar
