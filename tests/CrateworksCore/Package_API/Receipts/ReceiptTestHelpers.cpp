#include "ReceiptTestHelpers.h"

#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"

namespace receipttests {

std::vector<std::string> bomPaths(crateworks::CWReceipt& receipt) {
    std::vector<std::string> paths;
    auto enumerator = receipt._directoryEnumerator();
    if (!enumerator) return paths;
    while (auto path = enumerator->nextObject()) paths.push_back(*path);
    return paths;
}

}  // namespace receipttests
