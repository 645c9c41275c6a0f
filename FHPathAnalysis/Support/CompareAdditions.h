// Version-string ordering: runs of digits compare by their numeric value, everything
// else literally and case-sensitive, so "1.10" orders after "1.9".
#pragma once

#include <compare>
#include <string_view>

namespace CompareAdditions {

// How `receiver` orders against `other`: less (ascending), equal, greater (descending).
std::strong_ordering _numericCompare(std::string_view receiver, std::string_view other);

}  // namespace CompareAdditions
