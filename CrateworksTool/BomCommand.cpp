// crateworks bom list FILE [--json]: one line per entry after the root, in walk order.
//   Plain: path (without "./"), type word, mode in octal, uid, gid, size, checksum and
//   link target, separated by tabs; the target field is empty when there is none.
//   --json: one object per line with the keys path, type, mode (octal digits as a
//   string), uid, gid, size, checksum and target (null when there is none).
//   Control characters and backslashes in names are escaped ("\t", "\n", "\\", "\xHH")
//   so that every entry stays on one line.
// crateworks bom make DIR OUT: writes the BOM of the tree under DIR to OUT.
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "CrateworksTool/Command.h"
#include "Platform/Strings.h"

namespace {

using crateworks::bom::BOMEntry;

const char* typeWord(uint8_t type) {
    switch (type) {
    case crateworks::bom::kEntryFile: return "file";
    case crateworks::bom::kEntryDirectory: return "directory";
    case crateworks::bom::kEntrySymbolicLink: return "symlink";
    case crateworks::bom::kEntryDevice: return "device";
    default: return "unknown";
    }
}

std::string escapedText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c == '\t') out += "\\t";
        else if (c == '\n') out += "\\n";
        else if (c == '\\') out += "\\\\";
        else if (c < 0x20 || c == 0x7f) out += fmt::format("\\x{:02x}", c);
        else out += char(c);
    }
    return out;
}

// A JSON string; bytes that are not UTF-8 are carried as the code points of their values.
std::string jsonString(std::string_view text) {
    bool utf8 = platform::str::isValidUTF8(std::span<const char>(text.data(), text.size()));
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"') out += "\\\"";
        else if (c == '\\') out += "\\\\";
        else if (c < 0x20 || c == 0x7f || (!utf8 && c >= 0x80)) out += fmt::format("\\u{:04x}", c);
        else out += char(c);
    }
    return out + "\"";
}

std::string relativePath(const BOMEntry& entry) {
    return crateworks::CWBOM::_stringByRemovingBomPathPrefix(entry.pathName);
}

void printPlain(const BOMEntry& e) {
    fmt::print("{}\t{}\t{:o}\t{}\t{}\t{}\t{}\t{}\n", escapedText(relativePath(e)), typeWord(e.type), e.mode, e.uid,
               e.gid, e.size, e.checksum, e.linkTarget ? escapedText(*e.linkTarget) : std::string());
}

void printJSON(const BOMEntry& e) {
    fmt::print("{{\"path\":{},\"type\":\"{}\",\"mode\":\"{:o}\",\"uid\":{},\"gid\":{},\"size\":{},\"checksum\":{},"
               "\"target\":{}}}\n",
               jsonString(relativePath(e)), typeWord(e.type), e.mode, e.uid, e.gid, e.size, e.checksum,
               e.linkTarget ? jsonString(*e.linkTarget) : std::string("null"));
}

int list(const std::string& file, bool json) {
    auto store = crateworks::bom::BOMStore::openFile(file);
    auto root = store ? store->rootEntry() : std::nullopt;
    auto walk = root ? store->newEnumerator(*root) : nullptr;
    if (!walk) {
        fmt::print(stderr, "crateworks: {}: not a BOM file\n", file);
        return 1;
    }
    walk->next();  // the root is not listed
    while (const BOMEntry* entry = walk->next()) json ? printJSON(*entry) : printPlain(*entry);
    return 0;
}

int make(const std::string& directory, const std::string& out) {
    auto bom = crateworks::CWMutableBOM::initWithDirectory(directory, out, false, std::nullopt);
    if (!bom) {
        fmt::print(stderr, "crateworks: {}: cannot make a BOM of this directory\n", directory);
        return 1;
    }
    if (!bom->commitData()) {
        fmt::print(stderr, "crateworks: {}: cannot write the BOM\n", out);
        return 1;
    }
    return 0;
}

int bomMain(const std::vector<std::string>& args) {
    if (args.size() == 2 && args[0] == "list") return list(args[1], false);
    if (args.size() == 3 && args[0] == "list" && args[2] == "--json") return list(args[1], true);
    if (args.size() == 3 && args[0] == "make") return make(args[1], args[2]);
    return crateworks::usage();
}

const crateworks::Registration registration{"bom", "bom list FILE [--json] | bom make DIR OUT", bomMain};

}  // namespace
