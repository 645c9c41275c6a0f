#include "Platform/LazyLibrary.h"

#include <dlfcn.h>

#include "Platform/Log.h"

namespace platform::detail {

bool loadLazyLibrary(const char* soname, const std::vector<LazySymbol>& symbols, std::string* why) {
    void* handle = dlopen(soname, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* error = dlerror();
        *why = error ? error : "not found";
        return false;
    }
    for (const LazySymbol& symbol : symbols) {
        *symbol.slot = dlsym(handle, symbol.name);
        if (!*symbol.slot) {
            *why = std::string("it has no ") + symbol.name;
            // None, rather than some pointing into a library about to be closed.
            for (const LazySymbol& filled : symbols) *filled.slot = nullptr;
            dlclose(handle);
            return false;
        }
    }
    return true;
}

void announceLoadFailure(const char* soname, const std::string& why, const char* consequence) {
    consoleLogf("{} cannot be loaded ({}): {}", soname, why, consequence);
}

}  // namespace platform::detail
