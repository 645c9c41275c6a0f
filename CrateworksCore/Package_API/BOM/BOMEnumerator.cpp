#include "CrateworksCore/Package_API/BOM/BOMEnumerator.h"

namespace crateworks::bom {

const BOMEntry& BOMEnumerator::entry() {
    const BOMEntryView& current = view();
    BOMEntry& e = decoded_;
    e.type = current.type();
    e.architecture = current.architecture();
    e.mode = current.mode();
    e.uid = current.uid();
    e.gid = current.gid();
    e.modificationTime = current.modificationTime();
    e.size = current.size();
    e.checksum = current.checksum();
    if (auto link = current.linkTarget()) e.linkTarget.emplace(*link);
    else e.linkTarget.reset();
    e.pathName.assign(current.path());
    e.shortName.assign(current.name());
    return e;
}

BOMWalkStatus BOMEnumerator::visitRemaining(BOMVisitor& visitor) {
    return _visitWith(visitor, [this] { return advance(); });
}

}  // namespace crateworks::bom
