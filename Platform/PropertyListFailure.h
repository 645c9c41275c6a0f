// Why bytes that libplist refused are not a property list. libplist answers only with
// a missing node, so the reason is worked out afresh: for XML, where the document stops
// being well formed (line, column and byte offset) or which element no property list
// holds; for the binary form, what its trailer or offset table gets wrong.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace platform::plist::detail {

// One sentence; meant for bytes that failed to read.
std::string failureReason(std::span<const uint8_t> bytes);

}  // namespace platform::plist::detail
