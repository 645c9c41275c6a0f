#include "CrateworksCore/Package_API/Archive/xar/XarHeader.h"

#include "CrateworksCore/Package_API/Archive/xar/XarLimits.h"

namespace crateworks::xar {

namespace {
uint64_t bigEndian(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
    return v;
}

void putBigEndian(std::string& out, uint64_t v, size_t n) {
    for (size_t i = n; i > 0; --i) out += char((v >> ((i - 1) * 8)) & 0xff);
}
}  // namespace

std::optional<Header> parseHeader(std::span<const uint8_t> bytes, std::string* diagnostic) {
    if (bytes.size() < kMinHeaderSize) {
        if (diagnostic) *diagnostic = "too short for a header";
        return std::nullopt;
    }
    if (bigEndian(bytes.data(), 4) != kHeaderMagic) {
        if (diagnostic) *diagnostic = "no XAR magic";
        return std::nullopt;
    }
    return Header{bigEndian(bytes.data() + 4, 2), bigEndian(bytes.data() + 8, 8), bigEndian(bytes.data() + 16, 8),
                  uint32_t(bigEndian(bytes.data() + 24, 4))};
}

std::string serializeHeader(const std::string& tocStyle, uint64_t compressedLength, uint64_t uncompressedLength) {
    uint32_t code = tocStyle == "sha1" ? kAlgorithmSHA1 : tocStyle == "md5" ? kAlgorithmMD5 : kAlgorithmNamed;
    std::string header;
    putBigEndian(header, kHeaderMagic, 4);
    putBigEndian(header, code == kAlgorithmNamed ? kMinHeaderSize + kNamedAlgorithmLength : kMinHeaderSize, 2);
    putBigEndian(header, 1, 2);
    putBigEndian(header, compressedLength, 8);
    putBigEndian(header, uncompressedLength, 8);
    putBigEndian(header, code, 4);
    if (code == kAlgorithmNamed) {
        std::string name = tocStyle;
        name.resize(kNamedAlgorithmLength, '\0');
        header += name;
    }
    return header;
}

}  // namespace crateworks::xar
