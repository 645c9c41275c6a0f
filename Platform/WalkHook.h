// A seam for tests: lets a test change the file system at a chosen point of a walk, so
// that a file vanishing or a directory becoming a symbolic link between being listed and
// being looked at is tried deterministically instead of by racing.
//
// It is compiled into every build and does nothing until a test sets it. Set, it is
// called with the name of each item the platform's walks have listed, just before they
// look at it: TreeWalk (archiving), CatalogueIterator (sizing), FileTreeWalk (the
// analysis walks, once a directory has been yielded and before its children are read),
// and ExtractionRoot with the relative path of each item it is about to create.
#pragma once

#include <functional>
#include <string_view>

namespace platform::fs {

using WalkHook = std::function<void(std::string_view name)>;

// Sets the hook (an empty function removes it). Not for use while a walk runs.
void setWalkHook(WalkHook hook);

// Removes the hook when it goes out of scope.
class ScopedWalkHook {
public:
    explicit ScopedWalkHook(WalkHook hook) { setWalkHook(std::move(hook)); }
    ~ScopedWalkHook() { setWalkHook({}); }
    ScopedWalkHook(const ScopedWalkHook&) = delete;
    ScopedWalkHook& operator=(const ScopedWalkHook&) = delete;
};

namespace detail {
// For the platform's walks: calls the hook, when one is set, with `name`.
void walkReached(std::string_view name);
}  // namespace detail

}  // namespace platform::fs
