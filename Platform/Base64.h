// Base64 (RFC 4648, standard alphabet, with padding), as XML documents carry binary.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Value.h"

namespace platform::base64 {

std::string encode(std::span<const uint8_t> bytes);
// Whitespace is skipped; absent when anything else is not base64.
std::optional<Data> decode(std::string_view text);

}  // namespace platform::base64
