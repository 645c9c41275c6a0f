// Helpers for the BOM tests: BOMs built entry by entry with fixed attributes (so their
// bytes are reproducible), and a view of a BOM file's bytes for making damaged copies.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "CrateworksCore/Package_API/BOM/CWBOM.h"

namespace bomtest {

using crateworks::bom::BOMEntry;

// A new BOM at `path` with its root, filled through the store.
class SampleBOM {
public:
    explicit SampleBOM(const std::string& path);
    SampleBOM& directory(const std::string& path, uint16_t permissions = 0755);
    SampleBOM& file(const std::string& path, uint64_t size = 0, uint32_t checksum = 0, uint16_t permissions = 0644,
                    uint32_t uid = 0, uint32_t gid = 0);
    SampleBOM& link(const std::string& path, std::optional<std::string> target);
    SampleBOM& device(const std::string& path, uint32_t number);
    // Commits and answers the file's bytes.
    std::vector<uint8_t> commit();

    crateworks::bom::BOMStore& store() { return *store_; }

private:
    void insert(BOMEntry entry, const std::string& path);
    std::string path_;
    std::shared_ptr<crateworks::bom::BOMStore> store_;
};

// The seed corpus of the BOM fuzz target, by file name, made in `scratch`.
std::map<std::string, std::vector<uint8_t>> seedCorpus(const std::string& scratch);

std::vector<uint8_t> readBytes(const std::string& path);

// Every path of a BOM in walk order, "./" cut, the root left out.
std::vector<std::string> walk(const std::shared_ptr<crateworks::CWBOM>& bom);

// The bytes of a BOM file, read and changed through the layout's fields.
class BOMBytes {
public:
    struct Item {
        uint32_t valueBlock, keyBlock, infoBlock;
        uint32_t id, parent;
        std::string name;
    };

    explicit BOMBytes(std::vector<uint8_t> bytes) : bytes(std::move(bytes)) {}

    uint32_t u32(size_t at) const;
    uint16_t u16(size_t at) const;
    void setU32(size_t at, uint32_t value);
    void setU16(size_t at, uint16_t value);

    uint32_t blockCount() const { return u32(u32(16)); }
    uint32_t address(uint32_t block) const { return u32(u32(16) + 4 + size_t(block) * 8); }
    uint32_t length(uint32_t block) const { return u32(u32(16) + 8 + size_t(block) * 8); }
    void setLength(uint32_t block, uint32_t length) { setU32(u32(16) + 8 + size_t(block) * 8, length); }
    // The variables' names in order, and the block one of them names (0 when missing).
    std::vector<std::string> variableNames() const;
    uint32_t variable(std::string_view name) const;
    // The leaf blocks of a tree, from its header block: down by pair 0, then forward.
    std::vector<uint32_t> leaves(uint32_t header) const;
    // The items of the Paths tree in leaf order.
    std::vector<Item> items() const;
    Item item(std::string_view name) const;  // the first item with that name
    // Adds a block at the end of the file (the block table is moved behind it).
    uint32_t appendBlock(const std::vector<uint8_t>& block);

    // Opens the bytes and walks every entry, reading its attributes: null when the open
    // or the walk refuses them.
    std::shared_ptr<crateworks::CWBOM> open() const;

    std::vector<uint8_t> bytes;
};

}  // namespace bomtest
