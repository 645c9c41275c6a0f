// The table of contents of a XAR archive in memory, read from and written to its XML.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarEntry.h"
#include "Platform/Value.h"

namespace crateworks::xar {

// A signature element: "RSA" (or "CMS" in an x-signature element), its bytes' place in
// the heap, and its certificates as DER, the signing certificate first.
struct Signature {
    std::string type;
    uint64_t offset = 0;
    uint64_t size = 0;
    std::vector<platform::Data> certificates;
};

// An entry of a TOC; owned by it and valid as long as it is.
using File = Entry*;

struct Toc {
    std::vector<std::unique_ptr<Entry>> entries;  // every entry, parents before children
    std::vector<Entry*> topLevel;
    std::vector<Property> properties;  // archive-level leaves: "creation-time", "checksum/offset", ...
    std::string checksumStyle;
    std::optional<uint64_t> checksumOffset;
    std::optional<uint64_t> checksumSize;
    std::vector<Signature> signatures;
    uint64_t refusedEntries = 0;  // entries dropped with their subtrees for an unsafe name

    // Entries in TOC order: parents before children, siblings in order. Null at the end.
    File first() const;
    File next(File file) const;
    // The first entry in TOC order whose path is `path`; null when there is none.
    File find(const std::string& path) const;
    // A new entry named `name` below `parent` (null: the top level), last among its
    // siblings, with its "name" and "type" properties.
    File add(File parent, std::string_view name, std::string type, uint64_t id);
    std::optional<std::string> archiveProperty(std::string_view name) const;

private:
    mutable std::unordered_map<std::string, File> index_;
    mutable bool indexed_ = false;
};

// Parses the TOC's XML without loading a DTD or substituting entities. Absent, with a
// diagnostic naming the fault or the limit passed, when the archive must not open.
std::optional<Toc> parseToc(std::string_view xml, std::string* diagnostic);

// The XML of a TOC as a writer produces it (the archive-level properties are not written;
// `creationTime` and the checksum element are).
std::string serializeToc(const Toc& toc, const std::string& creationTime);

// Strict unsigned 64-bit decimal: digits only, no overflow.
std::optional<uint64_t> parseU64(std::string_view text);

}  // namespace crateworks::xar
