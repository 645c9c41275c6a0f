// libcurl, loaded the first time a URL is parsed or a transfer is made rather than when
// a program starts. Linked directly, it brings some forty libraries (TLS, Kerberos,
// LDAP, IDN...) into every process, which costs each of this system's tools about 3 ms
// before main, most of them never touching the network (Platform/LazyLibrary).
#pragma once

#include <curl/curl.h>
#include <string>

#include "Platform/LazyLibrary.h"

namespace platform {

#define FERRYHOLD_CURL_FUNCTIONS(X, ...)                                                             \
    X(__VA_ARGS__, global_init) X(__VA_ARGS__, free) X(__VA_ARGS__, easy_init) X(__VA_ARGS__, easy_cleanup) \
    X(__VA_ARGS__, easy_reset) X(__VA_ARGS__, easy_setopt) X(__VA_ARGS__, easy_getinfo)               \
    X(__VA_ARGS__, easy_strerror) X(__VA_ARGS__, multi_init) X(__VA_ARGS__, multi_cleanup)            \
    X(__VA_ARGS__, multi_add_handle) X(__VA_ARGS__, multi_remove_handle) X(__VA_ARGS__, multi_setopt) \
    X(__VA_ARGS__, multi_socket_action) X(__VA_ARGS__, multi_info_read) X(__VA_ARGS__, slist_append)  \
    X(__VA_ARGS__, slist_free_all) X(__VA_ARGS__, url) X(__VA_ARGS__, url_cleanup) X(__VA_ARGS__, url_get) \
    X(__VA_ARGS__, url_set)

struct CurlLibrary {
    // The soname the build's headers belong to.
    static constexpr const char* kFileName = "libcurl.so.4";

    // The library, loaded and initialised on first use; null when it cannot be loaded,
    // after one console line saying why.
    static const CurlLibrary* get();
    // Why get() answers null; empty while it does not.
    static const std::string& loadFailure();
    // The loaded library, where get() is known to have succeeded (a transfer exists).
    static const CurlLibrary& loaded() { return *get(); }

    static std::vector<detail::LazySymbol> symbols(CurlLibrary& table);

    // One pointer per function, named after it without the "curl_" prefix.
    FERRYHOLD_CURL_FUNCTIONS(FERRYHOLD_LAZY_POINTER, curl_)
};

}  // namespace platform
