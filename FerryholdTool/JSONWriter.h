// JSON text of a property-list value, for the --json output of the ferryhold command.
//
// Dictionaries keep their key order; integers and reals are numbers; dates are ISO 8601
// strings in UTC; data is a base64 string; foreign values are left out, as the XML
// writer leaves them out. Bytes of a string that are not UTF-8 become U+FFFD.
#pragma once

#include <string>

#include "Platform/Value.h"

namespace ferryhold {

class JSONWriter {
public:
    // The value as indented JSON, ending in a newline.
    static std::string write(const platform::Value& value);

private:
    explicit JSONWriter(std::string& out) : out_(out) {}
    void value(const platform::Value& value, int depth);
    void string(const std::string& text);
    void array(const platform::Array& array, int depth);
    void dictionary(const platform::Dictionary& dictionary, int depth);
    void real(double number);
    void newline(int depth);

    std::string& out_;
};

}  // namespace ferryhold
