#include "Platform/Strings.h"

#include <cstdint>

namespace platform::str {

namespace {
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Length of the UTF-8 sequence starting at s[i] (1 for a stray byte).
size_t sequenceLength(std::string_view s, size_t i) {
    auto c = static_cast<unsigned char>(s[i]);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 1;
    return i + n <= s.size() ? n : 1;
}
}  // namespace

int numericCompare(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            size_t i0 = i, j0 = j;
            while (i < a.size() && isDigit(a[i])) ++i;
            while (j < b.size() && isDigit(b[j])) ++j;
            // Compare the runs by value without converting: drop leading zeros, then
            // the longer run is larger, then the digits decide.
            std::string_view ra = a.substr(i0, i - i0), rb = b.substr(j0, j - j0);
            while (ra.size() > 1 && ra[0] == '0') ra.remove_prefix(1);
            while (rb.size() > 1 && rb[0] == '0') rb.remove_prefix(1);
            if (ra.size() != rb.size()) return ra.size() < rb.size() ? -1 : 1;
            if (int c = ra.compare(rb); c != 0) return c < 0 ? -1 : 1;
            continue;
        }
        auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
        if (ca != cb) return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size()) return 1;
    if (j < b.size()) return -1;
    return 0;
}

bool like(std::string_view s, std::string_view p) {
    // Iterative wildcard match with one backtrack point for the last "*".
    size_t si = 0, pi = 0, starP = std::string_view::npos, starS = 0;
    while (si < s.size()) {
        if (pi < p.size() && p[pi] == '*') {
            starP = pi++;
            starS = si;
        } else if (pi < p.size() && p[pi] == '?') {
            si += sequenceLength(s, si);
            ++pi;
        } else if (pi < p.size() && p[pi] == s[si]) {
            ++si;
            ++pi;
        } else if (starP != std::string_view::npos) {
            pi = starP + 1;
            starS += sequenceLength(s, starS);
            si = starS;
        } else {
            return false;
        }
    }
    while (pi < p.size() && p[pi] == '*') ++pi;
    return pi == p.size();
}

bool isValidUTF8(std::span<const char> bytes) {
    size_t i = 0, n = bytes.size();
    while (i < n) {
        auto c = static_cast<unsigned char>(bytes[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        size_t len;
        uint32_t cp;
        if ((c >> 5) == 0x6) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c >> 4) == 0xE) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c >> 3) == 0x1E) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (size_t k = 1; k < len; ++k) {
            auto cc = static_cast<unsigned char>(bytes[i + k]);
            if ((cc >> 6) != 0x2) return false;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

bool hasPrefix(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }
bool hasSuffix(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

}  // namespace platform::str
