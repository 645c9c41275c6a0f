// The table of contents of a XAR archive in memory, read from and written to its XML.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/XarEntry.h"
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

struct Toc {
    std::vector<std::unique_ptr<Entry>> entries;  // every entry, parents before children
    std::vector<Entry*> topLevel;
    std::vector<Property> properties;  // archive-level leaves: "creation-time", "checksum/offset", ...
    std::string checksumStyle;
    std::optional<uint64_t> checksumOffset;
    std::optional<uint64_t> checksumSize;
    std::vector<Signature> signatures;
    uint64_t refusedEntries = 0;  // entries dropped with their subtrees for an unsafe name
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
