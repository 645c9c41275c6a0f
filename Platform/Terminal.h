// The terminal a tool draws its progress on.
#pragma once

#include <optional>

namespace platform::terminal {

// The width in columns of the terminal open on `descriptor`; absent when it is not a
// terminal or does not say.
std::optional<int> columns(int descriptor);

}  // namespace platform::terminal
