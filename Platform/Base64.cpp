#include "Platform/Base64.h"

#include <array>

namespace platform::base64 {

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<int8_t, 256> makeReverse() {
    std::array<int8_t, 256> table{};
    for (auto& v : table) v = -1;
    for (int i = 0; i < 64; ++i) table[uint8_t(kAlphabet[i])] = int8_t(i);
    return table;
}
constexpr auto kReverse = makeReverse();
}  // namespace

std::string encode(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        uint32_t v = uint32_t(bytes[i]) << 16 | uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
        for (int shift : {18, 12, 6, 0}) out += kAlphabet[(v >> shift) & 63];
    }
    if (size_t rest = bytes.size() - i) {
        uint32_t v = uint32_t(bytes[i]) << 16 | (rest == 2 ? uint32_t(bytes[i + 1]) << 8 : 0);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += rest == 2 ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

std::optional<Data> decode(std::string_view text) {
    Data out;
    uint32_t accumulator = 0;
    int bits = 0;
    size_t padding = 0;
    for (char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        int8_t v = kReverse[uint8_t(c)];
        if (v < 0 || padding > 0) return std::nullopt;
        accumulator = (accumulator << 6) | uint32_t(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(uint8_t((accumulator >> bits) & 0xff));
        }
    }
    if (padding > 2 || bits >= 6) return std::nullopt;
    return out;
}

}  // namespace platform::base64
