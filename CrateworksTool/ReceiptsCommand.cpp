// crateworks receipts ROOT: lists the receipts of the volume at ROOT, one per line:
// identifier, version, install date (ISO 8601), groups joined with ",", BOM path,
// separated by tabs. Absent values are empty fields; every field is escaped as the
// other listings are, so that a receipt stays on one line.
#include <cstdio>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "CommandLine/StandardOutput.h"
#include "CommandLine/Text.h"
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
    for (auto& field : fields) field = commandline::escapedText(field);
    return joined(fields, "\t");
}

int listReceipts(const std::string& root) {
    bool isDirectory = false;
    if (!platform::fs::exists(root, &isDirectory) || !isDirectory) {
        fprintf(stderr, "crateworks receipts: %s is not a directory\n", commandline::escapedText(root).c_str());
        return 1;
    }
    for (const auto& receipt : crateworks::CWReceipt::receiptsOnVolumeAtPath(root)) {
        commandline::outLine(receiptLine(*receipt));
        if (!commandline::StandardOutput::shared().good()) break;
    }
    return 0;
}

}  // namespace

void crateworks::addReceiptsCommand(CLI::App& app) {
    auto root = std::make_shared<std::string>();
    CLI::App* command = commandline::addCommand(app, "receipts", "The receipts of a volume");
    command->add_option("ROOT", *root, "The volume's root directory")->required();
    commandline::onRun(command, [root] { return listReceipts(*root); });
}
