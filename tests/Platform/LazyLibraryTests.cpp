// Loading a library on first use: all of its functions or none, and a reason when not.
#include <gtest/gtest.h>

#include <cstring>

#include "Platform/CurlLibrary.h"
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

}  // namespace
