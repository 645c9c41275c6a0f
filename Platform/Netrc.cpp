#include "Platform/Netrc.h"

#include <cstdlib>
#include <sstream>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"

namespace platform::netrc {

std::optional<URLCredential> credentialForHost(std::string_view host) {
    const char* home = getenv("HOME");
    if (!home || !*home) return std::nullopt;
    auto bytes = fs::readRegularFile(path::appendComponent(home, ".netrc"));
    if (!bytes) return std::nullopt;
    return credentialForHost(host, std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size()));
}

std::optional<URLCredential> credentialForHost(std::string_view host, std::string_view netrcText) {
    std::istringstream in{std::string(netrcText)};
    std::string token;
    // The entry being read: 0 none or another host, 1 the host's own, 2 the default.
    int current = 0;
    std::optional<URLCredential> own, fallback, reading;
    auto finish = [&] {
        if (current == 1 && !own) own = reading;
        if (current == 2 && !fallback) fallback = reading;
        reading.reset();
    };
    while (in >> token) {
        if (token == "machine" || token == "default") {
            finish();
            std::string name;
            if (token == "machine") in >> name;
            current = token == "default" ? 2 : (name == host ? 1 : 0);
            reading = URLCredential{};
        } else if (token == "macdef") {
            finish();
            current = 0;
            // A macro runs to the next empty line.
            std::string line;
            std::getline(in, line);
            while (std::getline(in, line) && !line.empty()) {}
        } else if ((token == "login" || token == "password" || token == "account") && reading) {
            std::string value;
            in >> value;
            if (token == "login") reading->user = value;
            if (token == "password") reading->password = value;
        }
    }
    finish();
    return own ? own : fallback;
}

}  // namespace platform::netrc
