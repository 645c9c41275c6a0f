#include <gtest/gtest.h>

#include "FHPathAnalysis/PathAnalyzer/FHStringPredicate.h"

namespace {
bool eval(const std::string& text, const std::string& value) {
    auto p = FHStringPredicate::predicateWithFormat(text);
    EXPECT_TRUE(p) << text;
    return p && p->evaluateWithObject(value);
}
}  // namespace

TEST(FHStringPredicate, PrefixFilterAsTheAnalysisWritesIt) {
    EXPECT_FALSE(eval("NOT (SELF BEGINSWITH \"/Library/Printers\")", "/Library/Printers/x"));
    EXPECT_FALSE(eval("NOT (SELF BEGINSWITH \"/Library/Printers\")", "/Library/PrintersX"));
    EXPECT_TRUE(eval("NOT (SELF BEGINSWITH \"/Library/Printers\")", "/Library/Print"));
    EXPECT_TRUE(eval("not (self beginswith \"/A\")", "/B"));  // keywords in any case
}

TEST(FHStringPredicate, OrOfNegatedLikeTerms) {
    // With two negated terms joined by OR, a name is kept when it fails either pattern.
    std::string text = "( ! SELF like \"a*\") OR ( ! SELF like \"*z\")";
    EXPECT_TRUE(eval(text, "abc"));   // fails "*z"
    EXPECT_TRUE(eval(text, "xyz"));   // fails "a*"
    EXPECT_FALSE(eval(text, "abz"));  // matches both
    EXPECT_TRUE(eval("( SELF like \"com.quarn.user*pictureCache*\")", "com.quarn.user501pictureCache.db"));
    EXPECT_FALSE(eval("( SELF like \"com.quarn.user*pictureCache*\")", "com.quarn.User501pictureCache"));
    EXPECT_TRUE(eval("SELF like \"a?c\" AND SELF != \"abc\"", "axc"));
    EXPECT_TRUE(eval("\"/a/b\" BEGINSWITH SELF", "/a"));
}

TEST(FHStringPredicate, PastedTextIsReadByTheLanguage) {
    // A backslash escapes the next character.
    EXPECT_FALSE(eval("NOT (SELF BEGINSWITH \"/a\\\\b\")", "/a\\b/x"));
    EXPECT_FALSE(eval("NOT (SELF BEGINSWITH \"/a\\qb\")", "/aqb/x"));
    // A quote ends the literal, and the rest of the path becomes part of the filter.
    EXPECT_TRUE(eval("NOT (SELF BEGINSWITH \"/x\" OR SELF BEGINSWITH \"/y\")", "/z"));
    EXPECT_FALSE(eval("NOT (SELF BEGINSWITH \"/x\" OR SELF BEGINSWITH \"/y\")", "/y/1"));
    // "%%" is one percent sign; any other "%" has no argument and the filter does not parse.
    EXPECT_FALSE(eval("NOT (SELF BEGINSWITH \"/100%%\")", "/100%/x"));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat("NOT (SELF BEGINSWITH \"/100%\")"));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat("NOT (SELF BEGINSWITH \"/a\"b\")"));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat("NOT (SELF BEGINSWITH \"/a"));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat("(SELF BEGINSWITH \"/a\""));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat(""));
}
