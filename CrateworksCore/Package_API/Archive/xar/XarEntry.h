// One entry of a XAR table of contents: a node of the file tree, its properties in
// TOC order, and where its data lies in the heap.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarEncoding.h"

namespace crateworks::xar {

// A leaf element of an entry: its element path below <file> joined with "/"
// ("mode", "data/size"), its text, and the attributes of its own element.
struct Property {
    std::string name;
    std::optional<std::string> value;
    std::vector<std::pair<std::string, std::string>> attributes;
};

struct DataInfo {
    uint64_t offset = 0;  // from the heap's first byte
    uint64_t length = 0;  // stored bytes
    uint64_t size = 0;    // extracted bytes
    Encoding encoding = Encoding::None;
    std::string archivedChecksumStyle;
    std::string archivedChecksum;  // lower-case hex
    std::string extractedChecksumStyle;
    std::string extractedChecksum;
};

struct Entry {
    uint64_t id = 0;
    std::string name;
    std::string type;  // the TOC's type word: "file", "directory", "symlink", ...
    std::string path;  // ancestors' names and its own joined with "/"
    Entry* parent = nullptr;
    std::vector<Entry*> children;
    size_t indexInParent = 0;
    unsigned depth = 0;
    // Every leaf element in TOC order, name and data fields included. The name and the
    // data are also kept typed; a writer takes those from the typed fields.
    std::vector<Property> properties;
    std::optional<DataInfo> data;

    const Property* find(std::string_view propertyName) const {
        for (const auto& p : properties)
            if (p.name == propertyName) return &p;
        return nullptr;
    }
};

}  // namespace crateworks::xar
