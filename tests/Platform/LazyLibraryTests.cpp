// Loading a library on first use: all of its functions or none, and a reason when not.
#include <gtest/gtest.h>

#include <cstring>
#include <dlfcn.h>
#include <string_view>

#include "Platform/CryptoLibrary.h"
#include "Platform/CurlLibrary.h"
#include "Platform/Digest.h"
#include "Platform/LazyLibrary.h"

namespace {

using platform::detail::LazySymbol;
using platform::detail::loadLazyLibrary;

TEST(LazyLibrary, EveryFunctionOrNoneAndAReasonWhenNone) {
    decltype(&::strlen) length = nullptr;
    decltype(&::strcmp) compare = nullptr;
    std::string why;
    ASSERT_TRUE(loadLazyLibrary("libc.so.6", {{"strlen", reinterpret_cast<void**>(&length)},
                                              {"strcmp", reinterpret_cast<void**>(&compare)}},
                                &why))
        << why;
    EXPECT_EQ(5u, length("fives"));
    EXPECT_EQ(0, compare("a", "a"));

    void* missing = nullptr;
    EXPECT_FALSE(loadLazyLibrary("libc.so.6", {{"strlen", reinterpret_cast<void**>(&length)},
                                               {"no_such_function_here", &missing}},
                                 &why));
    EXPECT_EQ("it has no no_such_function_here", why);
    EXPECT_EQ(nullptr, length);  // none filled, not some
    EXPECT_FALSE(loadLazyLibrary("libnothing-of-the-kind.so.9", {{"f", &missing}}, &why));
    EXPECT_NE(std::string::npos, why.find("libnothing-of-the-kind.so.9")) << why;
}

TEST(LazyLibrary, CurlIsLoadedWhenFirstAskedFor) {
    const platform::CurlLibrary* curl = platform::CurlLibrary::get();
    ASSERT_TRUE(curl);
    EXPECT_EQ(curl, platform::CurlLibrary::get());  // once per process
    EXPECT_STREQ("No error", curl->easy_strerror(CURLE_OK));
}

std::span<const uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(LazyLibrary, CryptoIsLoadedOnceAndDigestsGoThroughIt) {
    using platform::CryptoLibrary;
    namespace digest = platform::digest;
    const CryptoLibrary* crypto = CryptoLibrary::get();
    ASSERT_TRUE(crypto) << CryptoLibrary::loadFailure();
    EXPECT_EQ(crypto, CryptoLibrary::get());  // once per process
    EXPECT_EQ("", CryptoLibrary::loadFailure());
    // The table holds the functions of the one copy of the library in the process (the
    // test PKI links it directly): objects made through either are freed by the same code.
    void* loaded = dlopen(CryptoLibrary::kFileName, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(dlsym(loaded, "EVP_sha256"), reinterpret_cast<void*>(crypto->EVP_sha256));
    EXPECT_EQ(dlsym(loaded, "X509_free"), reinterpret_cast<void*>(crypto->X509_free));
    dlclose(loaded);

    // The published example digests of "abc", through the ordinary Digest API.
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", digest::hex(digest::compute(digest::Algorithm::MD5, bytesOf("abc"))));
    EXPECT_EQ("a9993e364706816aba3e25717850c26c9cd0d89d",
              digest::hex(digest::compute(digest::Algorithm::SHA1, bytesOf("abc"))));
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
              digest::hex(digest::compute(digest::Algorithm::SHA256, bytesOf("abc"))));
    EXPECT_EQ("ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
              "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f",
              digest::hex(digest::compute(digest::Algorithm::SHA512, bytesOf("abc"))));
    // Fed in pieces (and an empty one), the same digest as all at once.
    digest::Hasher pieces(digest::Algorithm::SHA256);
    for (std::string_view piece : {"a", "", "bc"}) pieces.update(bytesOf(piece));
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", digest::hex(pieces.finish()));
}

}  // namespace
