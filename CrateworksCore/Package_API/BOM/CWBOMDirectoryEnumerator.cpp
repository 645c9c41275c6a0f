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
    enumerator->_hasCurrent = enumerator->_be->advance();
    return enumerator;
}

std::optional<std::string> CWBOMDirectoryEnumerator::nextObject() {
    _hasCurrent = _be->advance();
    if (!_hasCurrent) return std::nullopt;
    return CWBOM::_stringByRemovingBomPathPrefix(_be->path());
}

const bom::BOMEntry* CWBOMDirectoryEnumerator::_currentFSO() { return _hasCurrent ? &_be->entry() : nullptr; }

void CWBOMDirectoryEnumerator::skipDescendents() { _be->skipDescendants(); }

bool CWBOMDirectoryEnumerator::isDirectory() {
    const bom::BOMEntry* current = _currentFSO();
    return current && current->type == bom::kEntryDirectory;
}

std::optional<platform::Dictionary> CWBOMDirectoryEnumerator::fileAttributes() {
    const bom::BOMEntry* current = _currentFSO();
    if (!current) return std::nullopt;
    return CWBOM::_attributesOfBOMEntry(*current);
}

}  // namespace crateworks
