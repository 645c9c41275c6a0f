#include "Platform/CurlLibrary.h"

#include "Platform/Log.h"

namespace platform {

std::vector<detail::LazySymbol> CurlLibrary::symbols(CurlLibrary& table) {
    return {FERRYHOLD_CURL_FUNCTIONS(FERRYHOLD_LAZY_SYMBOL, table, curl_)};
}

namespace {
std::string& failure() {
    static std::string why;
    return why;
}
}  // namespace

const std::string& CurlLibrary::loadFailure() {
    get();
    return failure();
}

const CurlLibrary* CurlLibrary::get() {
    // Set up once, by the first thread to ask; the others wait for it. Never closed:
    // curl's global state lives as long as the process.
    static const CurlLibrary* library = [] {
        std::string& why = failure();
        const CurlLibrary* loaded = detail::lazyTable<CurlLibrary>(&why);
        if (loaded) {
            if (CURLcode code = loaded->global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK) {
                why = loaded->easy_strerror(code);
                loaded = nullptr;
            }
        }
        if (!loaded) consoleLogf("{} cannot be loaded ({}): no URL can be read or fetched", kFileName, why);
        return loaded;
    }();
    return library;
}

}  // namespace platform
