// Fuzzes the BOM reader with arbitrary bytes: opens them as a BOM, walks every entry
// (skipping some subtrees), reads attributes and looks paths up again. The BOM tests
// replay the seed corpus through this same function under every compiler.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto bom = crateworks::CWBOM::initWithBOMData(platform::Data(data, data + size));
    if (!bom) return 0;
    std::vector<std::string> sample;
    auto walk = bom->directoryEnumerator();
    for (size_t step = 0; walk; ++step) {
        auto path = walk->nextObject();
        if (!path) break;
        (void)walk->fileAttributes();
        if (walk->isDirectory() && step % 3 == 1) walk->skipDescendents();
        if (sample.size() < 8) sample.push_back(*path);
    }
    sample.insert(sample.end(), {".", "./", "no/such/entry", ""});
    for (const std::string& path : sample) {
        (void)bom->attributesOfItemAtPath(path);
        (void)bom->subpathsOfDirectoryAtPath(path);
    }
    (void)bom->fileCount();
    (void)bom->totalSize();
    return 0;
}
