// Path strings. Pure string operations: nothing here touches the file system except
// the tilde expansion of standardize().
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace platform::path {

// Leading "~" or "~/" expanded to $HOME, empty and "." components removed, ".."
// resolved against the component before it (never above "/"), trailing "/" removed.
std::string standardize(std::string_view path);

// `base` and `component` joined with exactly one separator at the seam and no
// trailing "/": ("/", "/Library/X") → "/Library/X", ("/Volumes/T/", "a/") → "/Volumes/T/a".
// Runs of "/" are folded to one. An empty base gives the component alone.
std::string appendComponent(std::string_view base, std::string_view component);

// "/a/b" → "b", "/a/b/" → "b", "/" → "/", "" → "".
std::string lastComponent(std::string_view path);
// "/a/b" → "/a", "/a" → "/", "a" → "", "/" → "/".
std::string deletingLastComponent(std::string_view path);
// Extension of the last component without the dot; "" when it has none.
std::string extension(std::string_view path);
std::string deletingExtension(std::string_view path);
// The components; an absolute path starts with "/": "/a/b" → {"/", "a", "b"}.
std::vector<std::string> components(std::string_view path);

// The path with "/" appended unless it already ends with "/".
std::string prefixForm(std::string_view path);
// Whether `path` lies inside `directory`: it begins with the prefix form of `directory`.
bool isInside(std::string_view path, std::string_view directory);
// The ancestors of an absolute path, root first and the path itself excluded:
// "/a/b/c" → {"/", "/a", "/a/b"}.
std::vector<std::string> parentDirectories(std::string_view path);

}  // namespace platform::path
