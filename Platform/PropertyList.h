// Property lists in their XML and binary forms.
//
// Readers accept either form and never throw: a file that is missing, damaged, not a
// property list, or not of the expected top-level type reads as absent.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "Platform/Error.h"
#include "Platform/Value.h"

namespace platform::plist {

// When the bytes do not read, `error` gets kFileReadCorruptFileError in the general
// domain with why as its failure reason: where an XML document stops being well formed
// (line, column and byte offset), the element no property list holds, or what a binary
// property list's trailer or offset table gets wrong.
std::optional<Value> readBytes(std::span<const uint8_t> bytes, Error* error = nullptr);
std::optional<Value> readFile(const std::string& path);
std::optional<Dictionary> readDictionaryFile(const std::string& path);
std::optional<Array> readArrayFile(const std::string& path);

// XML form, UTF-8. Foreign values are left out. A carriage return inside a string or
// key is written as "&#13;" so that every conforming reader gets it back unchanged.
std::string toXML(const Value& value);
// Binary form. Foreign values are left out.
Data toBinary(const Value& value);

// Writes the XML form atomically: a temporary file beside `path`, then rename.
// False (with the error set) when it could not be written.
bool writeXMLFile(const Value& value, const std::string& path, Error* error = nullptr);

}  // namespace platform::plist
