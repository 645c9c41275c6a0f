#include "Platform/CurlLibrary.h"

#include <memory>

#include "Platform/Log.h"

namespace platform {

namespace {

std::unique_ptr<CurlLibrary> load(std::string* why) {
    auto library = std::make_unique<CurlLibrary>();
#define FERRYHOLD_CURL_SYMBOL(name) FERRYHOLD_LAZY_SYMBOL(*library, curl_, name)
    if (!detail::loadLazyLibrary(CurlLibrary::kFileName, {FERRYHOLD_CURL_FUNCTIONS(FERRYHOLD_CURL_SYMBOL)}, why))
        return nullptr;
#undef FERRYHOLD_CURL_SYMBOL
    if (CURLcode code = library->global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK) {
        *why = library->easy_strerror(code);
        return nullptr;  // kept loaded: curl may have set up part of its state
    }
    // Never closed: curl's global state lives as long as the process.
    return library;
}

}  // namespace

const CurlLibrary* CurlLibrary::get() {
    // Initialised once, by the first thread to ask; the others wait for it.
    static const std::unique_ptr<CurlLibrary> library = [] {
        std::string why;
        auto loaded = load(&why);
        if (!loaded) consoleLogf("{} cannot be loaded ({}): no URL can be read or fetched", kFileName, why);
        return loaded;
    }();
    return library.get();
}

}  // namespace platform
