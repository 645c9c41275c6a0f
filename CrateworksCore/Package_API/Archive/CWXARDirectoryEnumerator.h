// Walks the entries of an open XAR archive in TOC order, yielding their paths, or the
// paths below one entry relative to it. Borrows the archive's handle: it must not
// outlive the archive or its close.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "CrateworksCore/Package_API/Archive/xar/XarForward.h"
#include "Platform/DirectoryEnumerator.h"

namespace crateworks {

class CWXARDirectoryEnumerator : public platform::DirectoryEnumerator {
public:
    // Null when `subpath` (non-empty) names no entry. The sub-path's own entry is never
    // yielded; the walk ends at the first entry outside its subtree.
    static std::unique_ptr<CWXARDirectoryEnumerator> initWithXAR(const xar::XarReader* xar, const std::string& subpath);

    std::optional<std::string> nextObject() override;
    void skipDescendants();
    // The same operation under its second spelling.
    void skipDescendents() override { skipDescendants(); }
    bool isDirectory() override;
    // The entry last returned (or peeked at), null when there is none.
    xar::File xar_file() const { return _current_xar_file; }

private:
    explicit CWXARDirectoryEnumerator(const xar::XarReader* xar) : _xar(xar) {}
    bool _seekToSubpath(const std::string& subpath);
    xar::File _next_file();

    const xar::XarReader* _xar;
    xar::File _current_xar_file = nullptr;
    bool _didPeek = false;
    bool _isDone = false;
    std::optional<std::string> _basePath;
};

}  // namespace crateworks
