// Fuzzes the receipt readers with the bytes as both a flat receipt's property list
// (beside an empty BOM) and an old-style bundle receipt's Contents/Info.plist (beside
// an empty Archive.bom), then reads every value a receipt answers. The BOMs themselves
// are fuzz_bom's concern.
#include <cstdint>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "FuzzSupport.h"

namespace {

void readValues(crateworks::CWReceipt& receipt) {
    (void)receipt.packageIdentifier();
    (void)receipt.packageVersion();
    if (auto date = receipt.installDate()) (void)date->description();
    (void)receipt.installProcessName();
    (void)receipt.installPrefixPath();
    (void)receipt.packageGroups();
    (void)receipt._packageName();
    (void)receipt._SHA1ChecksumDataOfItemAtPath("./usr/bin/tool");
    (void)receipt._ACLStringOfItemAtPath("./usr/bin/tool");
    (void)receipt.receiptStoragePaths();
    (void)receipt.description();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::Scratch scratch;
    if (!scratch.ok()) return 0;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (!scratch.write("receipts/com.example.pkg.plist", bytes) || !scratch.write("receipts/com.example.pkg.bom", "") ||
        !scratch.write("Receipts/Example.pkg/Contents/Info.plist", bytes) ||
        !scratch.write("Receipts/Example.pkg/Contents/Archive.bom", ""))
        return 0;
    if (auto flat = crateworks::CWReceipt::initWithBOMPath(scratch / "receipts/com.example.pkg.bom")) readValues(*flat);
    if (auto bundle = crateworks::CWReceipt::initWithBundlePkgPath(scratch / "Receipts/Example.pkg")) readValues(*bundle);
    return 0;
}
