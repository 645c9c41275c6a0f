// libcurl, loaded the first time a URL is parsed or a transfer is made rather than when
// a program starts. Linked directly, it brings some forty libraries (TLS, Kerberos,
// LDAP, IDN...) into every process, which costs each of this system's tools about 3 ms
// before main, most of them never touching the network (Platform/LazyLibrary).
#pragma once

#include <curl/curl.h>
#include <string>

#include "Platform/LazyLibrary.h"

namespace platform {

#define FERRYHOLD_CURL_FUNCTIONS(X)                                                                      \
    X(global_init)                                                                                       \
    X(free) X(easy_init) X(easy_cleanup) X(easy_reset) X(easy_setopt) X(easy_getinfo) X(easy_strerror)  \
    X(multi_init) X(multi_cleanup) X(multi_add_handle) X(multi_remove_handle) X(multi_setopt)           \
    X(multi_socket_action) X(multi_info_read) X(slist_append) X(slist_free_all) X(url) X(url_cleanup)   \
    X(url_get) X(url_set)

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
#define FERRYHOLD_CURL_POINTER(name) FERRYHOLD_LAZY_POINTER(curl_, name)
    FERRYHOLD_CURL_FUNCTIONS(FERRYHOLD_CURL_POINTER)
#undef FERRYHOLD_CURL_POINTER
};

}  // namespace platform
