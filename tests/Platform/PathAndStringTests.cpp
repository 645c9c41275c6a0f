#include <gtest/gtest.h>

#include "Platform/Path.h"
#include "Platform/Strings.h"

using namespace platform;

TEST(NumericCompare, DigitRunsCompareByValue) {
    EXPECT_EQ(1, str::numericCompare("10.6.10", "10.6.9"));
    EXPECT_EQ(-1, str::numericCompare("10.7", "10.10"));
    EXPECT_EQ(0, str::numericCompare("10.6.8", "10.6.8"));
    EXPECT_EQ(-1, str::numericCompare("10.6", "10.6.1"));
    EXPECT_EQ(1, str::numericCompare("1.10", "1.9"));
    EXPECT_EQ(-1, str::numericCompare("9", "10"));
    // Longer than any integer type: still by value.
    EXPECT_EQ(1, str::numericCompare("100000000000000000000000", "99999999999999999999999"));
    // Case-sensitive, byte-wise outside digit runs.
    EXPECT_EQ(-1, str::numericCompare("A", "a"));
    EXPECT_EQ(-1, str::numericCompare("10.6", "10.6a"));
}

TEST(Like, WholeStringWithWildcards) {
    EXPECT_TRUE(str::like("com.example.pkg.BSD", "com.example.pkg.*"));
    EXPECT_TRUE(str::like("abc", "a?c"));
    EXPECT_TRUE(str::like("", "*"));
    EXPECT_TRUE(str::like("a*b", "a*b"));
    EXPECT_FALSE(str::like("abc", "ab"));
    EXPECT_FALSE(str::like("abc", "?"));
    EXPECT_FALSE(str::like("ABC", "abc"));
    EXPECT_TRUE(str::like("xaaab", "*a*b"));
    EXPECT_FALSE(str::like("xaaac", "*a*b"));
    EXPECT_TRUE(str::like("\xc3\xa9t\xc3\xa9", "?t?"));  // "?" is one character, not one byte
}

TEST(Path, Standardize) {
    EXPECT_EQ("/a/c", path::standardize("/a/./b/../c/"));
    EXPECT_EQ("/", path::standardize("/../.."));
    EXPECT_EQ("/", path::standardize("/"));
    EXPECT_EQ("/a/b", path::standardize("//a//b//"));
    EXPECT_EQ("../x", path::standardize("a/../../x"));
    setenv("HOME", "/home/someone", 1);
    EXPECT_EQ("/home/someone/Library", path::standardize("~/Library"));
    EXPECT_EQ("/x/~", path::standardize("/x/~"));
}

TEST(Path, AppendComponentKeepsOneSeparator) {
    EXPECT_EQ("/Library/X", path::appendComponent("/", "/Library/X"));
    EXPECT_EQ("/Volumes/T/Library", path::appendComponent("/Volumes/T", "/Library"));
    EXPECT_EQ("/Volumes/T/Library", path::appendComponent("/Volumes/T/", "Library/"));
    EXPECT_EQ("/Volumes/T", path::appendComponent("/Volumes/T/", ""));
    EXPECT_EQ("x", path::appendComponent("", "x"));
    EXPECT_EQ("/", path::appendComponent("/", ""));
    // A carriage return is an ordinary character of a name.
    EXPECT_EQ("/Icon\r", path::appendComponent("/", "Icon\r"));
}

TEST(Path, ComponentsPrefixAndInside) {
    EXPECT_EQ("b", path::lastComponent("/a/b/"));
    EXPECT_EQ("/", path::lastComponent("/"));
    EXPECT_EQ("/", path::deletingLastComponent("/a"));
    EXPECT_EQ("", path::deletingLastComponent("a"));
    EXPECT_EQ("/a", path::deletingLastComponent("/a/b"));
    EXPECT_EQ("gz", path::extension("/x/a.tar.gz"));
    EXPECT_EQ("", path::extension("/x/.hidden"));
    EXPECT_EQ("/x/a.tar", path::deletingExtension("/x/a.tar.gz"));
    EXPECT_EQ("/", path::prefixForm("/"));
    EXPECT_EQ("/A/", path::prefixForm("/A"));
    EXPECT_TRUE(path::isInside("/A/b", "/A"));
    EXPECT_FALSE(path::isInside("/AB", "/A"));
    EXPECT_FALSE(path::isInside("/A", "/A"));
    EXPECT_TRUE(path::isInside("/anything", "/"));
    EXPECT_EQ((std::vector<std::string>{"/", "/a", "/a/b"}), path::parentDirectories("/a/b/c"));
    EXPECT_TRUE(path::parentDirectories("/").empty());
    EXPECT_EQ((std::vector<std::string>{"/", "a", "b"}), path::components("/a//b/"));
}
