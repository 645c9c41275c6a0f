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

// Filters come from files: nesting that would exhaust the stack is refused, while long
// chains of AND and OR, which do not nest, are read and evaluated in full.
TEST(FHStringPredicate, DeepNestingIsRefusedAndLongChainsAreNot) {
    auto nested = [](int depth, const std::string& open, const std::string& close) {
        std::string text;
        for (int i = 0; i < depth; ++i) text += open;
        text += "SELF == \"a\"";
        for (int i = 0; i < depth; ++i) text += close;
        return text;
    };
    EXPECT_TRUE(eval(nested(200, "(", ")"), "a"));
    EXPECT_TRUE(eval(nested(200, "NOT ", ""), "a"));  // an even count
    EXPECT_FALSE(eval(nested(199, "NOT ", ""), "a"));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat(nested(201, "(", ")")));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat(nested(100000, "(", ")")));
    EXPECT_FALSE(FHStringPredicate::predicateWithFormat(nested(100000, "! ", "")));

    std::string chain = "SELF == \"x0\"";
    for (int i = 1; i < 20000; ++i) chain += (i % 2 ? " OR " : " || ") + std::string("SELF == \"x") + std::to_string(i) + "\"";
    EXPECT_TRUE(eval(chain, "x19999"));
    EXPECT_TRUE(eval(chain, "x0"));
    EXPECT_FALSE(eval(chain, "x20000"));
    std::string all = "SELF CONTAINS \"a\"";
    for (int i = 0; i < 20000; ++i) all += " AND SELF BEGINSWITH \"a\"";
    EXPECT_TRUE(eval(all, "abc"));
    EXPECT_FALSE(eval(all, "bac"));
    // Precedence is kept: AND binds tighter than OR.
    EXPECT_TRUE(eval("SELF == \"a\" OR SELF == \"b\" AND SELF == \"c\"", "a"));
    EXPECT_FALSE(eval("(SELF == \"a\" OR SELF == \"b\") AND SELF == \"c\"", "a"));
}
