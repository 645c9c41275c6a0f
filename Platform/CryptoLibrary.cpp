#include "Platform/CryptoLibrary.h"

#include "Platform/Log.h"

namespace platform {

std::vector<detail::LazySymbol> CryptoLibrary::symbols(CryptoLibrary& table) {
    return {FERRYHOLD_CRYPTO_FUNCTIONS(FERRYHOLD_LAZY_SYMBOL, table, )};
}

namespace {
std::string& failure() {
    static std::string why;
    return why;
}
}  // namespace

const std::string& CryptoLibrary::loadFailure() {
    get();
    return failure();
}

const CryptoLibrary* CryptoLibrary::get() {
    // Looked up once, by the first thread to ask; the others wait for it. Never closed:
    // the library's own state lives as long as the process.
    static const CryptoLibrary* library = [] {
        std::string& why = failure();
        const CryptoLibrary* loaded = detail::lazyTable<CryptoLibrary>(&why);
        if (!loaded)
            consoleLogf("{} cannot be loaded ({}): no digest can be computed and no certificate, key or "
                        "signature read or checked",
                        kFileName, why);
        return loaded;
    }();
    return library;
}

}  // namespace platform
