#include "Platform/CryptoLibrary.h"

namespace platform {

std::vector<detail::LazySymbol> CryptoLibrary::symbols(CryptoLibrary& table) {
    return {FERRYHOLD_CRYPTO_FUNCTIONS(FERRYHOLD_LAZY_SYMBOL, table, )};
}

const CryptoLibrary* CryptoLibrary::get() {
    // Looked up once, by the first thread to ask; the others wait for it. Never closed:
    // the library's own state lives as long as the process.
    return detail::announcedTable<CryptoLibrary>(
        "no digest can be computed and no certificate, key or signature read or checked");
}

const std::string& CryptoLibrary::loadFailure() {
    get();
    return detail::loadFailureOf<CryptoLibrary>();
}

}  // namespace platform
