#include "CrateworksCore/Package_API/Archive/CWXARDirectoryEnumerator.h"

#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Platform/Strings.h"

namespace crateworks {

std::unique_ptr<CWXARDirectoryEnumerator> CWXARDirectoryEnumerator::initWithXAR(const xar::XarReader* xar,
                                                                               const std::string& subpath) {
    if (!xar) return nullptr;
    std::unique_ptr<CWXARDirectoryEnumerator> enumerator(new CWXARDirectoryEnumerator(xar));
    if (!subpath.empty()) {
        if (!enumerator->_seekToSubpath(subpath)) return nullptr;
        enumerator->_basePath = subpath;
    }
    return enumerator;
}

bool CWXARDirectoryEnumerator::_seekToSubpath(const std::string& subpath) {
    // The first entry in TOC order with exactly this path, byte for byte.
    _current_xar_file = _xar->find(subpath);
    return _current_xar_file != nullptr;
}

xar::File CWXARDirectoryEnumerator::_next_file() {
    if (_isDone) return nullptr;
    _current_xar_file = _current_xar_file ? _xar->next(_current_xar_file) : _xar->first();
    if (!_current_xar_file) _isDone = true;
    return _current_xar_file;
}

std::optional<std::string> CWXARDirectoryEnumerator::nextObject() {
    if (_didPeek) {
        _didPeek = false;
    } else if (!_next_file()) {
        return std::nullopt;
    }
    if (!_current_xar_file) return std::nullopt;
    std::string path = _xar->path(_current_xar_file);
    if (!_basePath) return path;
    std::string prefix = *_basePath + "/";
    if (platform::str::hasPrefix(path, prefix)) return path.substr(prefix.size());
    _isDone = true;
    return std::nullopt;
}

void CWXARDirectoryEnumerator::skipDescendants() {
    if (!_current_xar_file) return;
    std::string prefix = _xar->path(_current_xar_file) + "/";
    do {
        if (!_next_file()) return;
    } while (platform::str::hasPrefix(_xar->path(_current_xar_file), prefix));
    _didPeek = true;
}

bool CWXARDirectoryEnumerator::isDirectory() {
    return _current_xar_file && _xar->type(_current_xar_file) == "directory";
}

}  // namespace crateworks
