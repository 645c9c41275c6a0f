#include "Platform/CurlLibrary.h"

#include <dlfcn.h>
#include <memory>

#include "Platform/Log.h"

namespace platform {

namespace {

std::unique_ptr<CurlLibrary> load(std::string* why) {
    void* handle = dlopen(CurlLibrary::kFileName, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* error = dlerror();
        *why = error ? error : "not found";
        return nullptr;
    }
    auto library = std::make_unique<CurlLibrary>();
    bool complete = true;
#define FERRYHOLD_CURL_LOOKUP(name)                                                             \
    library->name = reinterpret_cast<decltype(library->name)>(dlsym(handle, "curl_" #name));   \
    if (!library->name) {                                                                       \
        *why = "it has no curl_" #name;                                                         \
        complete = false;                                                                       \
    }
    FERRYHOLD_CURL_FUNCTIONS(FERRYHOLD_CURL_LOOKUP)
#undef FERRYHOLD_CURL_LOOKUP
    if (!complete) {
        dlclose(handle);
        return nullptr;
    }
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
