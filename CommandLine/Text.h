// How the tools print names they did not choose (paths from archives, BOM files and
// volumes): one entry per line in text, valid UTF-8 in JSON and XML.
#pragma once

#include <string>
#include <string_view>

namespace commandline {

// The length of the well-formed UTF-8 sequence starting at `at`, or 0 when the byte
// there does not start one (overlong forms, surrogates and code points above U+10FFFF
// are not well formed).
size_t utf8SequenceLength(std::string_view text, size_t at);

bool isValidUTF8(std::string_view text);

// `text` with every byte that is not part of well-formed UTF-8 replaced by U+FFFD.
std::string withReplacementCharacters(std::string_view text);

// The one escaping of every text listing, so that an entry never spans two lines or
// two fields: "\\", "\n", "\t", "\r", and "\xNN" for other control characters, DEL and
// every byte that is not valid UTF-8. Valid multi-byte characters stay as they are.
std::string escapedText(std::string_view text);

}  // namespace commandline
