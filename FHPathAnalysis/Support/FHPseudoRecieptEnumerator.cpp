#include "FHPathAnalysis/Support/FHPseudoRecieptEnumerator.h"

#include <utility>

#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/Strings.h"

FHPseudoRecieptEnumerator::FHPseudoRecieptEnumerator(std::shared_ptr<const std::vector<std::string>> fileList)
    : _fileList(fileList ? std::move(fileList) : std::make_shared<const std::vector<std::string>>()) {}

FHPseudoRecieptEnumerator::FHPseudoRecieptEnumerator(std::vector<std::string> fileList)
    : _fileList(std::make_shared<const std::vector<std::string>>(std::move(fileList))) {}

std::optional<std::string> FHPseudoRecieptEnumerator::nextObject() {
    _currentPath.reset();
    if (_nextIndex >= _fileList->size()) return std::nullopt;
    _currentPath = (*_fileList)[_nextIndex++];
    return _currentPath;
}

bool FHPseudoRecieptEnumerator::isDirectory() {
    if (!_currentPath) return false;
    auto attributes = platform::fs::attributes(*_currentPath);
    if (!attributes) return false;
    auto* type = attributes->findString(platform::fs::kFileType);
    return type && *type == platform::fs::kFileTypeDirectory;
}

void FHPseudoRecieptEnumerator::skipDescendants() {
    if (!_currentPath) return;
    std::string prefix = platform::path::prefixForm(*_currentPath);
    while (auto next = nextObject()) {
        if (!platform::str::hasPrefix(*next, prefix)) {
            --_nextIndex;
            return;
        }
    }
}
