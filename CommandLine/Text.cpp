#include "CommandLine/Text.h"

#include <cstdint>
#include <fmt/format.h>

namespace commandline {

size_t utf8SequenceLength(std::string_view s, size_t at) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char lead = byte(at);
    size_t length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length == 0 || at + length > s.size()) return 0;
    uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
    for (size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(at + i) & 0x3F);
    }
    static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

bool isValidUTF8(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        size_t length = utf8SequenceLength(text, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string withReplacementCharacters(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        size_t length = utf8SequenceLength(text, i);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(text.substr(i, length));
            i += length;
        }
    }
    return out;
}

std::string escapedText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        size_t length = utf8SequenceLength(text, i);
        if (length > 1) {
            out.append(text.substr(i, length));
            i += length;
            continue;
        }
        ++i;
        if (c == '\\') out += "\\\\";
        else if (c == '\n') out += "\\n";
        else if (c == '\t') out += "\\t";
        else if (c == '\r') out += "\\r";
        else if (length == 0 || c < 0x20 || c == 0x7F) out += fmt::format("\\x{:02x}", c);
        else out += char(c);
    }
    return out;
}

}  // namespace commandline
