#include "Platform/CurlLibrary.h"

namespace platform {

std::vector<detail::LazySymbol> CurlLibrary::symbols(CurlLibrary& table) {
    return {FERRYHOLD_CURL_FUNCTIONS(FERRYHOLD_LAZY_SYMBOL, table, curl_)};
}

const CurlLibrary* CurlLibrary::get() {
    // Set up once, by the first thread to ask; the others wait for it. Never closed:
    // curl's global state lives as long as the process.
    return detail::announcedTable<CurlLibrary>("no URL can be read or fetched", [](const CurlLibrary& curl,
                                                                                 std::string& why) {
        CURLcode code = curl.global_init(CURL_GLOBAL_DEFAULT);
        if (code != CURLE_OK) why = curl.easy_strerror(code);
        return code == CURLE_OK;
    });
}

const std::string& CurlLibrary::loadFailure() {
    get();
    return detail::loadFailureOf<CurlLibrary>();
}

}  // namespace platform
