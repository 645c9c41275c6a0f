// String comparisons shared by every subsystem.
#pragma once

#include <span>
#include <string_view>

namespace platform::str {

// Numeric comparison: runs of digits compare by their value, everything else byte by
// byte, case-sensitive. 10.6.10 orders after 10.6.9, 10.10 after 10.7. Answers -1, 0 or 1.
int numericCompare(std::string_view a, std::string_view b);

// The LIKE match: the whole string against the pattern, "*" any run (empty included),
// "?" exactly one character, everything else literally and case-sensitive.
bool like(std::string_view string, std::string_view pattern);

bool isValidUTF8(std::span<const char> bytes);
bool hasPrefix(std::string_view s, std::string_view prefix);
bool hasSuffix(std::string_view s, std::string_view suffix);

}  // namespace platform::str
