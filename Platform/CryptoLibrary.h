// libcrypto, loaded the first time a digest is computed or a certificate, key, signature
// or trust evaluation needs it rather than when a program starts: linked directly it is
// mapped and relocated before main in every process, which costs each of this system's
// tools about 0.7 ms, most of them never hashing or verifying anything
// (Platform/LazyLibrary). The headers' types (X509, EVP_PKEY...) are used as they are;
// only the calls go through the table.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/stack.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string>

#include "Platform/LazyLibrary.h"

namespace platform {

// Every function of the library the platform layer calls, by its own name (the table's
// members are named like the functions). Where the headers offer a macro, the function
// it expands to is listed: OPENSSL_sk_* for the typed stacks, BIO_ctrl for
// BIO_get_mem_data, CRYPTO_free for OPENSSL_free.
#define FERRYHOLD_CRYPTO_FUNCTIONS(X, ...)                                                                   \
    X(__VA_ARGS__, ASN1_OBJECT_free) X(__VA_ARGS__, ASN1_STRING_get0_data) X(__VA_ARGS__, ASN1_STRING_length) \
    X(__VA_ARGS__, ASN1_STRING_to_UTF8) X(__VA_ARGS__, ASN1_TIME_to_tm)                                      \
    X(__VA_ARGS__, BIO_ctrl) X(__VA_ARGS__, BIO_f_buffer) X(__VA_ARGS__, BIO_free) X(__VA_ARGS__, BIO_free_all) \
    X(__VA_ARGS__, BIO_new) X(__VA_ARGS__, BIO_new_mem_buf) X(__VA_ARGS__, BIO_push) X(__VA_ARGS__, BIO_s_mem) \
    X(__VA_ARGS__, CMS_ContentInfo_free) X(__VA_ARGS__, CMS_SignerInfo_cert_cmp)                             \
    X(__VA_ARGS__, CMS_get0_SignerInfos) X(__VA_ARGS__, CMS_get1_certs) X(__VA_ARGS__, CMS_sign)             \
    X(__VA_ARGS__, CMS_verify) X(__VA_ARGS__, d2i_CMS_bio) X(__VA_ARGS__, i2d_CMS_ContentInfo)               \
    X(__VA_ARGS__, CRYPTO_free)                                                                              \
    X(__VA_ARGS__, EVP_DigestFinal_ex) X(__VA_ARGS__, EVP_DigestInit_ex) X(__VA_ARGS__, EVP_DigestUpdate)    \
    X(__VA_ARGS__, EVP_MD_CTX_free) X(__VA_ARGS__, EVP_MD_CTX_new)                                           \
    X(__VA_ARGS__, EVP_md5) X(__VA_ARGS__, EVP_sha1) X(__VA_ARGS__, EVP_sha256) X(__VA_ARGS__, EVP_sha512)   \
    X(__VA_ARGS__, EVP_PKEY_CTX_free) X(__VA_ARGS__, EVP_PKEY_CTX_new)                                       \
    X(__VA_ARGS__, EVP_PKEY_CTX_set_rsa_padding) X(__VA_ARGS__, EVP_PKEY_CTX_set_signature_md)               \
    X(__VA_ARGS__, EVP_PKEY_free) X(__VA_ARGS__, EVP_PKEY_get_base_id) X(__VA_ARGS__, EVP_PKEY_get_size)     \
    X(__VA_ARGS__, EVP_PKEY_sign) X(__VA_ARGS__, EVP_PKEY_sign_init) X(__VA_ARGS__, EVP_PKEY_verify)         \
    X(__VA_ARGS__, EVP_PKEY_verify_init) X(__VA_ARGS__, PEM_read_bio_PrivateKey)                             \
    X(__VA_ARGS__, d2i_AutoPrivateKey)                                                                       \
    X(__VA_ARGS__, EXTENDED_KEY_USAGE_free)                                                                  \
    X(__VA_ARGS__, OBJ_get0_data) X(__VA_ARGS__, OBJ_length) X(__VA_ARGS__, OBJ_obj2txt)                     \
    X(__VA_ARGS__, OBJ_txt2obj) X(__VA_ARGS__, d2i_ASN1_OBJECT)                                              \
    X(__VA_ARGS__, OPENSSL_sk_free) X(__VA_ARGS__, OPENSSL_sk_new_null) X(__VA_ARGS__, OPENSSL_sk_num)        \
    X(__VA_ARGS__, OPENSSL_sk_push) X(__VA_ARGS__, OPENSSL_sk_value)                                         \
    X(__VA_ARGS__, X509_free) X(__VA_ARGS__, X509_up_ref) X(__VA_ARGS__, d2i_X509) X(__VA_ARGS__, i2d_X509)  \
    X(__VA_ARGS__, PEM_read_bio_X509) X(__VA_ARGS__, X509_get0_notAfter) X(__VA_ARGS__, X509_get0_pubkey)    \
    X(__VA_ARGS__, X509_get_ext) X(__VA_ARGS__, X509_get_ext_count) X(__VA_ARGS__, X509_get_ext_d2i)         \
    X(__VA_ARGS__, X509_get_subject_name) X(__VA_ARGS__, X509_self_signed)                                   \
    X(__VA_ARGS__, X509_EXTENSION_get_data) X(__VA_ARGS__, X509_EXTENSION_get_object)                       \
    X(__VA_ARGS__, X509_NAME_ENTRY_get_data) X(__VA_ARGS__, X509_NAME_get_entry)                             \
    X(__VA_ARGS__, X509_NAME_get_index_by_NID) X(__VA_ARGS__, X509_NAME_print_ex)                            \
    X(__VA_ARGS__, X509_STORE_new) X(__VA_ARGS__, X509_STORE_free) X(__VA_ARGS__, X509_STORE_add_cert)       \
    X(__VA_ARGS__, X509_STORE_CTX_new) X(__VA_ARGS__, X509_STORE_CTX_free) X(__VA_ARGS__, X509_STORE_CTX_init) \
    X(__VA_ARGS__, X509_STORE_CTX_get0_chain) X(__VA_ARGS__, X509_STORE_CTX_get0_param)                     \
    X(__VA_ARGS__, X509_STORE_CTX_get_error) X(__VA_ARGS__, X509_VERIFY_PARAM_set_depth)                    \
    X(__VA_ARGS__, X509_VERIFY_PARAM_set_flags) X(__VA_ARGS__, X509_VERIFY_PARAM_set_time)                  \
    X(__VA_ARGS__, X509_verify_cert) X(__VA_ARGS__, X509_verify_cert_error_string)                          \
    X(__VA_ARGS__, X509_get_default_cert_dir) X(__VA_ARGS__, X509_get_default_cert_dir_env)                 \
    X(__VA_ARGS__, X509_get_default_cert_file) X(__VA_ARGS__, X509_get_default_cert_file_env)

struct CryptoLibrary {
    // The soname the build's headers belong to.
    static constexpr const char* kFileName = "libcrypto.so.3";

    // The library, loaded on first use; null when it cannot be loaded, after one console
    // line saying why.
    static const CryptoLibrary* get();
    // Why get() answers null; empty while it does not.
    static const std::string& loadFailure();
    // The loaded library, where get() is known to have succeeded (a certificate, key or
    // other object of the library exists).
    static const CryptoLibrary& loaded() { return *get(); }

    static std::vector<detail::LazySymbol> symbols(CryptoLibrary& table);

    // One pointer per function, named like it.
    FERRYHOLD_CRYPTO_FUNCTIONS(FERRYHOLD_LAZY_POINTER, )
};

}  // namespace platform
