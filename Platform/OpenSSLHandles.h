// Owning handles for OpenSSL objects, for the platform layer's own sources only: no
// header outside Platform/ includes this one.
#pragma once

#include <memory>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <span>

namespace platform::security::detail {

template <auto Free>
struct Deleter {
    template <typename T>
    void operator()(T* p) const {
        if (p) Free(p);
    }
};

using BIOPtr = std::unique_ptr<BIO, Deleter<BIO_free>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using EVPKeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using EVPKeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using StorePtr = std::unique_ptr<X509_STORE, Deleter<X509_STORE_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX_free>>;
using CMSPtr = std::unique_ptr<CMS_ContentInfo, Deleter<CMS_ContentInfo_free>>;
using ObjectPtr = std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT_free>>;
using EKUPtr = std::unique_ptr<EXTENDED_KEY_USAGE, Deleter<EXTENDED_KEY_USAGE_free>>;

inline void freeX509Stack(STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }
using X509StackPtr = std::unique_ptr<STACK_OF(X509), Deleter<freeX509Stack>>;

// A read-only memory BIO over bytes that outlive it.
inline BIOPtr memoryBIO(std::span<const uint8_t> bytes) {
    return BIOPtr(BIO_new_mem_buf(bytes.data(), int(bytes.size())));
}

}  // namespace platform::security::detail
