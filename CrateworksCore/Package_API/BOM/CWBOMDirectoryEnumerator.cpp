#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"

namespace crateworks {

std::shared_ptr<CWBOMDirectoryEnumerator> CWBOMDirectoryEnumerator::initWithBOM(std::shared_ptr<CWBOM> bom) {
    if (!bom || !bom->bomHandle()) return nullptr;
    auto root = bom->bomHandle()->rootEntry();
    if (!root) return nullptr;
    std::shared_ptr<CWBOMDirectoryEnumerator> enumerator(new CWBOMDirectoryEnumerator());
    enumerator->_be = bom->bomHandle()->newEnumerator(*root);
    if (!enumerator->_be) return nullptr;
    enumerator->_cwBom = std::move(bom);
    // The first entry is the root itself, which is held but never reported.
    enumerator->_currentFSO = enumerator->_be->next();
    return enumerator;
}

std::optional<std::string> CWBOMDirectoryEnumerator::nextObject() {
    _currentFSO = _be->next();
    if (!_currentFSO) return std::nullopt;
    return CWBOM::_stringByRemovingBomPathPrefix(_currentFSO->pathName);
}

void CWBOMDirectoryEnumerator::skipDescendents() { _be->skipDescendants(); }

bool CWBOMDirectoryEnumerator::isDirectory() { return _currentFSO && _currentFSO->type == bom::kEntryDirectory; }

std::optional<platform::Dictionary> CWBOMDirectoryEnumerator::fileAttributes() {
    if (!_currentFSO) return std::nullopt;
    return CWBOM::_attributesOfBOMEntry(*_currentFSO);
}

}  // namespace crateworks
