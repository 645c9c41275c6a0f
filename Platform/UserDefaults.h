// User defaults: settings kept as property lists, one per domain, in
// $XDG_CONFIG_HOME/ferryhold/DOMAIN.plist ($XDG_CONFIG_HOME defaulting to ~/.config).
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Value.h"

namespace platform::defaults {

// The domain searched after the program's own.
inline constexpr const char* kGlobalDomain = ".GlobalPreferences";

// The value of `key`: from the program's own domain (its executable's name), else from
// the global domain. Absent when neither file holds the key. Files are read on every call.
std::optional<Value> objectForKey(std::string_view key);

// True only when the value found is the boolean true.
bool boolForKey(std::string_view key);

// The property-list file of a domain.
std::string pathForDomain(std::string_view domain);

}  // namespace platform::defaults
