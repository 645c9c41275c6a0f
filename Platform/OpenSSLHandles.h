// Owning handles for OpenSSL objects, and typed access to its stacks, for the platform
// layer's own sources only: no header outside Platform/ includes this one. Every call
// goes through the library's table (Platform/CryptoLibrary), loaded on first use; the
// handles and helpers here serve code that holds an object of the library, so the table
// is known to be loaded, and the entry points that make the first such object ask
// CryptoLibrary::get() and fail when it is null.
#pragma once

#include <memory>
#include <span>

#include "Platform/CryptoLibrary.h"

namespace platform::security::detail {

// The loaded table (see above).
inline const CryptoLibrary& crypto() { return CryptoLibrary::loaded(); }

// Frees with the table's function `Free` (a pointer to one of its members).
template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* p) const {
        if (p) (crypto().*Free)(p);
    }
};

using BIOPtr = std::unique_ptr<BIO, Deleter<&CryptoLibrary::BIO_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<&CryptoLibrary::X509_free>>;
using EVPKeyPtr = std::unique_ptr<EVP_PKEY, Deleter<&CryptoLibrary::EVP_PKEY_free>>;
using EVPKeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<&CryptoLibrary::EVP_PKEY_CTX_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<&CryptoLibrary::X509_STORE_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<&CryptoLibrary::X509_STORE_CTX_free>>;
using CMSPtr = std::unique_ptr<CMS_ContentInfo, Deleter<&CryptoLibrary::CMS_ContentInfo_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, Deleter<&CryptoLibrary::ASN1_OBJECT_free>>;
using EKUPtr = std::unique_ptr<EXTENDED_KEY_USAGE, Deleter<&CryptoLibrary::EXTENDED_KEY_USAGE_free>>;

// The typed stacks (STACK_OF(X509)...) are the library's one untyped stack; these do
// what its sk_TYPE_* macros do.
template <typename Stack>
int stackCount(const Stack* stack) {
    return crypto().OPENSSL_sk_num(reinterpret_cast<const OPENSSL_STACK*>(stack));
}
template <typename Item, typename Stack>
Item* stackItem(const Stack* stack, int index) {
    return static_cast<Item*>(crypto().OPENSSL_sk_value(reinterpret_cast<const OPENSSL_STACK*>(stack), index));
}

// A stack of certificates owning one reference to each.
inline void freeX509Stack(STACK_OF(X509) * stack) {
    for (int i = 0; i < stackCount(stack); ++i) crypto().X509_free(stackItem<X509>(stack, i));
    crypto().OPENSSL_sk_free(reinterpret_cast<OPENSSL_STACK*>(stack));
}
struct X509StackDeleter {
    void operator()(STACK_OF(X509) * stack) const {
        if (stack) freeX509Stack(stack);
    }
};
using X509StackPtr = std::unique_ptr<STACK_OF(X509), X509StackDeleter>;

inline X509StackPtr newX509Stack() {
    return X509StackPtr(reinterpret_cast<STACK_OF(X509)*>(crypto().OPENSSL_sk_new_null()));
}
// Adds a reference to `certificate` to `stack`; false when it cannot grow.
inline bool pushX509(STACK_OF(X509) * stack, X509* certificate) {
    if (crypto().X509_up_ref(certificate) != 1) return false;
    if (crypto().OPENSSL_sk_push(reinterpret_cast<OPENSSL_STACK*>(stack), certificate) > 0) return true;
    crypto().X509_free(certificate);
    return false;
}

// What OPENSSL_free does: frees memory the library allocated for its caller.
inline void freeMemory(void* p) { crypto().CRYPTO_free(p, OPENSSL_FILE, OPENSSL_LINE); }

// A read-only memory BIO over bytes that outlive it.
inline BIOPtr memoryBIO(std::span<const uint8_t> bytes) {
    return BIOPtr(crypto().BIO_new_mem_buf(bytes.data(), int(bytes.size())));
}

}  // namespace platform::security::detail
