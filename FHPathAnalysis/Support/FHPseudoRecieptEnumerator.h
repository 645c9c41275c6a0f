// Yields the paths of a fixed list as if they were the entries of a receipt's bill of
// materials. The list must be sorted so that every path's descendants follow it directly.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/DirectoryEnumerator.h"

class FHPseudoRecieptEnumerator : public platform::DirectoryEnumerator {
public:
    // initWithArray: — the list is shared, not copied.
    explicit FHPseudoRecieptEnumerator(std::shared_ptr<const std::vector<std::string>> fileList);
    explicit FHPseudoRecieptEnumerator(std::vector<std::string> fileList);

    std::optional<std::string> nextObject() override;
    // Whether the current path, taken as an absolute path, is a directory; false when
    // there is none or it cannot be read.
    bool isDirectory() override;
    // Moves past the elements inside the current path. The current path is then the
    // element to come (absent at the end), which the next nextObject returns again.
    void skipDescendants();
    void skipDescendents() override { skipDescendants(); }

    const std::optional<std::string>& currentPath() const { return _currentPath; }

private:
    std::shared_ptr<const std::vector<std::string>> _fileList;
    std::optional<std::string> _currentPath;
    uint64_t _nextIndex = 0;
};
