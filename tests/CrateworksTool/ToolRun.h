// Running the built crateworks and ferryhold binaries from a test.
#pragma once

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace tooltest {

struct Result {
    int status = -1;
    std::string out, err;
};

// Runs TOOL ("crateworks" or "ferryhold") from the build with `arguments` (each one a
// word, quoted here), standard error captured through `scratch` (a file path).
// `redirect` is shell text appended to the command (such as "</dev/null" or ">/dev/full").
// `directory`, when given, is the working directory.
Result run(const std::string& tool, const std::vector<std::string>& arguments, const std::string& scratch,
        const std::string& redirect = "", const std::string& directory = "");

std::string binary(const std::string& tool);

// Reads JSON lines with Python and prints, for each, "path|bytes" where bytes is the
// hex of the exact name: path_base64 decoded when present, else the UTF-8 of "path".
// KEY names the field ("path", "link", "target").
std::string namesFromJsonLines(const std::string& lines, const std::string& key, const std::string& scratch);

using testsupport::lines;
std::string hex(const std::string& bytes);
// The MD5 of `bytes` in lower-case hex, as a product index gives it.
std::string md5(const std::string& bytes);
// ROOT/index.product naming one package at `url` (identifier `identifier`, version 1.0)
// with the size and MD5 of `body`. False when it cannot be written.
bool writeOnePackageProduct(const std::string& root, const std::string& productIdentifier, const std::string& url,
                            const std::string& identifier, const std::string& body);

}  // namespace tooltest
