// crateworks bom list FILE [--json]: one line per entry after the root, in walk order.
//   Plain: path (without "./"), type word, mode in octal, uid, gid, size, checksum and
//   link target, separated by tabs; the target field is empty when there is none.
//   --json: one object per line with the keys path, type, mode (octal digits as a
//   string), uid, gid, size, checksum and target (null when there is none); a name
//   that is not UTF-8 also has path_base64 (target_base64) with its exact bytes.
// crateworks bom make DIR OUT: writes the BOM of the tree under DIR to OUT.
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "CommandLine/Json.h"
#include "CommandLine/StandardOutput.h"
#include "CommandLine/Streams.h"
#include "CommandLine/Text.h"
#include "CrateworksTool/Command.h"

namespace {

using crateworks::bom::BOMEntryView;
using crateworks::bom::BOMVisit;

const char* typeWord(uint8_t type) {
    switch (type) {
    case crateworks::bom::kEntryFile: return "file";
    case crateworks::bom::kEntryDirectory: return "directory";
    case crateworks::bom::kEntrySymbolicLink: return "symlink";
    case crateworks::bom::kEntryDevice: return "device";
    default: return "unknown";
    }
}

// Appends `text` as escapedText would print it; names that need no escaping, nearly all,
// are copied as they are, without a string of their own.
void appendEscaped(std::string& out, std::string_view text) {
    bool plain = true;
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte >= 0x7F || c == '\\') {
            plain = false;
            break;
        }
    }
    if (plain) out.append(text);
    else out.append(commandline::escapedText(text));
}

void printPlain(const BOMEntryView& e, std::string& line) {
    line.clear();
    appendEscaped(line, e.relativePath());
    fmt::format_to(std::back_inserter(line), "\t{}\t{:o}\t{}\t{}\t{}\t{}\t", typeWord(e.type()), e.mode(), e.uid(),
                   e.gid(), e.size(), e.checksum());
    if (auto target = e.linkTarget()) appendEscaped(line, *target);
    commandline::outLine(line);
}

void printJSON(const BOMEntryView& e) {
    commandline::Json line;
    commandline::setName(line, "path", e.relativePath());
    line["type"] = typeWord(e.type());
    line["mode"] = fmt::format("{:o}", e.mode());
    line["uid"] = e.uid();
    line["gid"] = e.gid();
    line["size"] = e.size();
    line["checksum"] = e.checksum();
    if (auto target = e.linkTarget()) commandline::setName(line, "target", *target);
    else line["target"] = nullptr;
    commandline::outLine(commandline::jsonLine(line));
}

int list(const std::string& file, bool json) {
    std::shared_ptr<crateworks::bom::BOMStore> store;
    std::optional<commandline::SpooledInput> spool;
    if (commandline::isStandardStream(file)) {
        platform::Error error;
        spool = commandline::SpooledInput::fromStandardInput(&error);
        if (!spool) {
            fmt::print(stderr, "crateworks: standard input: {}\n", error.description());
            return 1;
        }
        store = crateworks::bom::BOMStore::openFile(spool->path());
    } else {
        store = crateworks::bom::BOMStore::openFile(file);
    }
    auto walk = store ? store->enumeratorAtPath(".") : nullptr;
    if (!walk || !walk->advance()) {  // the root is not listed
        fmt::print(stderr, "crateworks: {}: not a BOM file\n", commandline::escapedText(file));
        return 1;
    }
    std::string line;
    auto status = walk->forEachRemaining([&](const BOMEntryView& entry) {
        json ? printJSON(entry) : printPlain(entry, line);
        // Nobody is reading the rest.
        return commandline::StandardOutput::shared().good() ? BOMVisit::kContinue : BOMVisit::kStop;
    });
    if (status == crateworks::bom::BOMWalkStatus::kDamaged) {
        fmt::print(stderr, "crateworks: {}: the BOM is damaged; the listing stops there\n",
                   commandline::escapedText(file));
        return 1;
    }
    return 0;
}

int make(const std::string& directory, const std::string& out) {
    auto bom = crateworks::CWMutableBOM::initWithDirectory(directory, out, false, std::nullopt);
    if (!bom) {
        fmt::print(stderr, "crateworks: {}: cannot make a BOM of this directory\n", directory);
        return 1;
    }
    platform::Error error;
    if (!bom->commitData(&error)) {
        // The error names the file and the reason (a full disk, no permission).
        fmt::print(stderr, "crateworks: cannot write the BOM: {}\n", error.description());
        return 1;
    }
    return 0;
}

}  // namespace

void crateworks::addBomCommand(CLI::App& app) {
    CLI::App* bom = commandline::addCommand(app, "bom", "Lists and makes BOM files");
    bom->require_subcommand(1);

    struct ListOptions {
        std::string file;
        bool json = false;
    };
    auto listOptions = std::make_shared<ListOptions>();
    CLI::App* listCommand = commandline::addCommand(*bom, "list", "One line per entry of a BOM file");
    listCommand->add_option("FILE", listOptions->file, "The BOM file (\"-\": standard input)")->required();
    listCommand->add_flag("--json", listOptions->json, "One JSON object per entry");
    commandline::onRun(listCommand, [listOptions] { return list(listOptions->file, listOptions->json); });

    auto makeOptions = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* makeCommand = commandline::addCommand(*bom, "make", "The BOM of a directory tree");
    makeCommand->add_option("DIR", makeOptions->first, "The directory")->required();
    makeCommand->add_option("OUT", makeOptions->second, "The BOM file to write")->required();
    commandline::onRun(makeCommand, [makeOptions] { return make(makeOptions->first, makeOptions->second); });
}
