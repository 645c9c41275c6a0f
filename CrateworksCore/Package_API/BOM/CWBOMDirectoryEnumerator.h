// Walks a CWBOM depth first, each directory before its contents, and can stand wherever
// a directory enumerator is expected. Paths come without their "./"; the root "." is
// never reported, so a BOM holding only "." yields nothing.
#pragma once

#include <memory>
#include <utility>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "Platform/DirectoryEnumerator.h"

namespace crateworks {

class CWBOMDirectoryEnumerator : public platform::DirectoryEnumerator {
public:
    // Null for a null BOM or when no walk can be started on it.
    static std::shared_ptr<CWBOMDirectoryEnumerator> initWithBOM(std::shared_ptr<CWBOM> bom);

    std::optional<std::string> nextObject() override;
    // Do not descend into the entry last returned: the next one is its next sibling or
    // whatever follows its subtree.
    void skipDescendents() override;
    void skipDescendants() { skipDescendents(); }
    bool isDirectory() override;
    // The attribute dictionary of the entry last returned.
    std::optional<platform::Dictionary> fileAttributes() override;

    // Hands every remaining entry to `visitor` as a view (its path in the stored "./"
    // form, in a buffer reused from entry to entry), allocating nothing per entry.
    bom::BOMWalkStatus visitRemaining(bom::BOMVisitor& visitor);
    // The same with any callable taking a view and answering a BOMVisit.
    template <typename Visit> bom::BOMWalkStatus forEachRemaining(Visit&& visit) {
        _hasCurrent = false;
        return _be->forEachRemaining(std::forward<Visit>(visit));
    }
    // Whether the walk stopped at damage in the BOM: what it reported before is then not
    // the BOM's whole contents.
    bool damaged() const { return _be->damaged(); }

private:
    CWBOMDirectoryEnumerator() = default;

    // The entry last returned, its fields decoded only when asked for; null when there is none.
    const bom::BOMEntryView* _currentFSO() const;

    std::shared_ptr<CWBOM> _cwBom;  // keeps the BOM's data alive for the walk
    std::unique_ptr<bom::BOMEnumerator> _be;
    bool _hasCurrent = false;
};

}  // namespace crateworks
