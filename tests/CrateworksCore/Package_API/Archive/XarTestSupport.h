// Helpers for the archive tests: sample trees, the crateworks tool, and archives whose
// TOC is edited after writing (with or without a matching checksum).
#pragma once

#include <functional>
#include <string>

#include "support/TempDir.h"

namespace xartest {

// A small tree below `root`: a directory, text and binary files, an empty file, a
// read-only file, a nested directory and a symbolic link.
void makeSampleTree(const std::string& root);

// "crateworks ARGS" with both output streams; `status` receives the exit status.
std::string runTool(const std::string& args, int* status = nullptr);
// Quotes for the shell.
using testsupport::shellQuote;

// Rewrites the archive's TOC through `edit`. With `fixChecksum` the stored TOC checksum
// is made to match the new TOC; without it the old one stays.
void editToc(const std::string& archive, const std::function<void(std::string& xml)>& edit, bool fixChecksum = true);
// The archive's TOC as XML.
std::string tocOf(const std::string& archive);
// Replaces the first occurrence of `from` in `s`; fails the test when there is none.
void replaceOnce(std::string& s, const std::string& from, const std::string& to);
// Flips one byte of the file at `offset`.
void flipByte(const std::string& path, uint64_t offset);

}  // namespace xartest
