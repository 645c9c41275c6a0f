// crateworks receipts ROOT: lists the receipts of the volume at ROOT, one per line:
// identifier, version, install date (ISO 8601), groups joined with ",", BOM path,
// separated by tabs. Absent values are empty fields.
#include <cstdio>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "CrateworksTool/Command.h"
#include "Platform/FileSystem.h"

namespace {

std::string joined(const std::vector<std::string>& parts, const char* separator) {
    std::string out;
    for (const auto& part : parts) {
        if (!out.empty()) out += separator;
        out += part;
    }
    return out;
}

std::string receiptLine(const crateworks::CWReceipt& receipt) {
    auto date = receipt.installDate();
    std::vector<std::string> fields{
        receipt.packageIdentifier().value_or(""),
        receipt.packageVersion().value_or(""),
        date ? date->iso8601() : "",
        joined(receipt.packageGroups().value_or(std::vector<std::string>{}), ","),
        receipt.bomPath(),
    };
    return joined(fields, "\t");
}

int receiptsMain(const std::vector<std::string>& args) {
    if (args.size() != 1) return crateworks::usage();
    const std::string& root = args[0];
    bool isDirectory = false;
    if (!platform::fs::exists(root, &isDirectory) || !isDirectory) {
        fprintf(stderr, "crateworks receipts: %s is not a directory\n", root.c_str());
        return 1;
    }
    for (const auto& receipt : crateworks::CWReceipt::receiptsOnVolumeAtPath(root)) printf("%s\n", receiptLine(*receipt).c_str());
    return 0;
}

const crateworks::Registration registration{"receipts", "receipts ROOT", receiptsMain};

}  // namespace
