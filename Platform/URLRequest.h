// A request for a URL: the URL, how cached data may be used, the idle time-out, and
// header fields to send.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/URL.h"

namespace platform {

struct URLRequest {
    enum CachePolicy : int {
        UseProtocolCachePolicy = 0,
        ReloadIgnoringLocalCacheData = 1,
        ReturnCacheDataElseLoad = 2,
        ReturnCacheDataDontLoad = 3,
    };

    explicit URLRequest(URL url, int cachePolicy = UseProtocolCachePolicy, double timeoutInterval = 60)
        : url(std::move(url)), cachePolicy(cachePolicy), timeoutInterval(timeoutInterval) {}

    URL url;
    // There is no local cache: every policy loads from the source. The value is kept for callers.
    int cachePolicy;
    // Seconds the transfer may go without progress (connecting included) before it fails.
    double timeoutInterval;
    // No cookie store is kept, so no cookie is ever sent; the flag is kept for callers.
    bool shouldHandleCookies = true;
    std::vector<std::pair<std::string, std::string>> headerFields;

    // Sets a header field, replacing one of the same name (names compare case-insensitively).
    void setValue(std::string value, std::string_view field);
    std::optional<std::string> valueForHeaderField(std::string_view field) const;
};

}  // namespace platform
