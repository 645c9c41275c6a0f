#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"

namespace crateworks {

std::shared_ptr<CWBOMDirectoryEnumerator> CWBOMDirectoryEnumerator::initWithBOM(std::shared_ptr<CWBOM> bom) {
    if (!bom || !bom->bomHandle()) return nullptr;
    std::shared_ptr<CWBOMDirectoryEnumerator> enumerator(new CWBOMDirectoryEnumerator());
    enumerator->_be = bom->bomHandle()->enumeratorAtPath(".");
    if (!enumerator->_be) return nullptr;
    enumerator->_cwBom = std::move(bom);
    // The first entry is the root itself, which is held but never reported.
    enumerator->_hasCurrent = enumerator->_be->advance();
    return enumerator;
}

std::optional<std::string> CWBOMDirectoryEnumerator::nextObject() {
    _hasCurrent = _be->advance();
    if (!_hasCurrent) return std::nullopt;
    return CWBOM::_stringByRemovingBomPathPrefix(std::string(_be->path()));
}

const bom::BOMEntryView* CWBOMDirectoryEnumerator::_currentFSO() const { return _hasCurrent ? &_be->view() : nullptr; }

void CWBOMDirectoryEnumerator::skipDescendents() { _be->skipDescendants(); }

bool CWBOMDirectoryEnumerator::isDirectory() {
    const bom::BOMEntryView* current = _currentFSO();
    return current && current->isDirectory();
}

std::optional<platform::Dictionary> CWBOMDirectoryEnumerator::fileAttributes() {
    const bom::BOMEntryView* current = _currentFSO();
    if (!current || !current->readable()) return std::nullopt;
    return CWBOM::_attributesOfBOMEntry(_be->entry());
}

bom::BOMWalkStatus CWBOMDirectoryEnumerator::visitRemaining(bom::BOMVisitor& visitor) {
    _hasCurrent = false;
    return _be->visitRemaining(visitor);
}

}  // namespace crateworks
