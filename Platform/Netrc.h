// Credentials kept in the user's $HOME/.netrc.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/URLAuthenticationChallenge.h"

namespace platform::netrc {

// The login and password of the "machine" entry for `host`, else of the "default"
// entry; absent when the file is missing or names neither.
std::optional<URLCredential> credentialForHost(std::string_view host);

// The same from the text of a netrc file.
std::optional<URLCredential> credentialForHost(std::string_view host, std::string_view netrcText);

}  // namespace platform::netrc
