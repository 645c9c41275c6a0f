// A filter over strings written in the predicate language the analysis builds its
// filters in: SELF compared with quoted literals by BEGINSWITH, ENDSWITH, CONTAINS,
// LIKE ("*" any run, "?" one character, whole string, case-sensitive), ==, !=,
// combined with NOT / !, AND / &&, OR / || and parentheses.
//
// The analysis pastes path text into its filters before they are parsed, so a quote,
// backslash or percent sign in a path acts as the language reads it: "\x" escapes,
// "%%" is a percent sign and any other "%" leaves the format without an argument.
// Text that does not parse gives no predicate.
#pragma once

#include <memory>
#include <string>
#include <string_view>

class FHStringPredicate {
public:
    static std::shared_ptr<FHStringPredicate> predicateWithFormat(std::string_view text);

    virtual ~FHStringPredicate() = default;
    virtual bool evaluateWithObject(std::string_view string) const = 0;
};
