// Fuzzes the .netrc reader: the input's first part is the host asked for, the second
// the file's text. Hosts it commonly holds are asked too.
#include <cstdint>

#include "FuzzSupport.h"
#include "Platform/Netrc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 2);
    if (parts.size() < 2) parts.insert(parts.begin(), "downloads.example.com");
    for (std::string_view host : {std::string_view(parts[0]), std::string_view("example.com"), std::string_view("")})
        if (auto credential = platform::netrc::credentialForHost(host, parts[1]))
            (void)credential->user.size();
    return 0;
}
