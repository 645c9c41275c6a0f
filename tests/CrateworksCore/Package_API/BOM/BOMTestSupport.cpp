#include "BOMTestSupport.h"

#include <cstring>
#include <stdexcept>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/BOM/CWBOMDirectoryEnumerator.h"
#include "Platform/Checksum.h"
#include "support/TempDir.h"

namespace bomtest {

namespace bom = crateworks::bom;

SampleBOM::SampleBOM(const std::string& path) : path_(path), store_(bom::BOMStore::newBOM(path)) {
    if (!store_) throw std::runtime_error("cannot make a BOM at " + path);
    insert(bom::newEntry(bom::kEntryDirectory), ".");
}

void SampleBOM::insert(BOMEntry entry, const std::string& path) {
    entry.pathName = path == "." ? "." : "./" + path;
    entry.shortName = path.substr(path.rfind('/') + 1);
    if (!store_->insertEntry(entry)) throw std::runtime_error("cannot insert " + path);
}

SampleBOM& SampleBOM::directory(const std::string& path, uint16_t permissions) {
    BOMEntry e = bom::newEntry(bom::kEntryDirectory);
    e.mode = uint16_t(S_IFDIR | permissions);
    insert(e, path);
    return *this;
}

SampleBOM& SampleBOM::file(const std::string& path, uint64_t size, uint32_t checksum, uint16_t permissions,
                           uint32_t uid, uint32_t gid) {
    BOMEntry e = bom::newEntry(bom::kEntryFile);
    e.mode = uint16_t(S_IFREG | permissions);
    e.size = size;
    e.checksum = checksum;
    e.uid = uid;
    e.gid = gid;
    insert(e, path);
    return *this;
}

SampleBOM& SampleBOM::link(const std::string& path, std::optional<std::string> target) {
    BOMEntry e = bom::newEntry(bom::kEntrySymbolicLink);
    e.mode = uint16_t(S_IFLNK | 0755);
    if (target) {
        e.size = target->size();
        e.checksum = platform::checksum::compute(
            std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(target->data()), target->size()));
    }
    e.linkTarget = std::move(target);
    insert(e, path);
    return *this;
}

SampleBOM& SampleBOM::device(const std::string& path, uint32_t number) {
    BOMEntry e = bom::newEntry(bom::kEntryDevice);
    e.mode = uint16_t(S_IFBLK | 0640);
    e.checksum = number;
    insert(e, path);
    return *this;
}

std::vector<uint8_t> SampleBOM::commit() {
    if (!store_->commit()) throw std::runtime_error("cannot commit " + path_);
    return readBytes(path_);
}

std::map<std::string, std::vector<uint8_t>> seedCorpus(const std::string& scratch) {
    std::map<std::string, std::vector<uint8_t>> seeds;
    seeds["only-root.bom"] = SampleBOM(scratch + "/only-root.bom").commit();
    seeds["every-type.bom"] = SampleBOM(scratch + "/every-type.bom")
                                  .directory("usr")
                                  .directory("usr/bin")
                                  .file("usr/bin/tool", 1234, 0xdeadbeef, 0755)
                                  .link("usr/bin/alias", "tool")
                                  .link("usr/bin/broken", std::nullopt)
                                  .device("disk0", 0x01000002)
                                  .file("empty", 0, 4294967295u)
                                  .commit();
    SampleBOM many(scratch + "/branch-nodes.bom");
    many.directory("d");
    for (int i = 0; i < 300; ++i) many.file("d/f" + std::to_string(i), uint64_t(i));
    seeds["branch-nodes.bom"] = many.commit();
    seeds["size64.bom"] = SampleBOM(scratch + "/size64.bom")
                              .file("big", 5ull << 30)
                              .file("edge", 0xffffffffull)
                              .file("just-over", 0x100000000ull)
                              .commit();
    SampleBOM deep(scratch + "/deep.bom");
    std::string path = "l0";
    deep.directory(path);
    for (int i = 1; i < 70; ++i) deep.directory(path += "/l" + std::to_string(i));
    seeds["deep.bom"] = deep.commit();
    return seeds;
}

std::vector<uint8_t> readBytes(const std::string& path) {
    std::string text = testsupport::readFile(path);
    return {text.begin(), text.end()};
}

std::vector<std::string> walk(const std::shared_ptr<crateworks::CWBOM>& bom) {
    std::vector<std::string> paths;
    auto e = bom->directoryEnumerator();
    while (auto path = e->nextObject()) paths.push_back(*path);
    return paths;
}

uint32_t BOMBytes::u32(size_t at) const {
    return uint32_t(bytes.at(at)) << 24 | uint32_t(bytes.at(at + 1)) << 16 | uint32_t(bytes.at(at + 2)) << 8 |
           bytes.at(at + 3);
}

uint16_t BOMBytes::u16(size_t at) const { return uint16_t(bytes.at(at) << 8 | bytes.at(at + 1)); }

void BOMBytes::setU32(size_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes.at(at + size_t(i)) = uint8_t(value >> (24 - 8 * i));
}

void BOMBytes::setU16(size_t at, uint16_t value) {
    bytes.at(at) = uint8_t(value >> 8);
    bytes.at(at + 1) = uint8_t(value);
}

std::vector<std::string> BOMBytes::variableNames() const {
    std::vector<std::string> names;
    size_t at = u32(24) + 4;
    for (uint32_t i = 0, n = u32(u32(24)); i < n; ++i) {
        size_t length = bytes.at(at + 4);
        names.emplace_back(reinterpret_cast<const char*>(&bytes.at(at + 5)), length);
        at += 5 + length;
    }
    return names;
}

uint32_t BOMBytes::variable(std::string_view name) const {
    size_t at = u32(24) + 4;
    for (uint32_t i = 0, n = u32(u32(24)); i < n; ++i) {
        size_t length = bytes.at(at + 4);
        if (std::string_view(reinterpret_cast<const char*>(&bytes.at(at + 5)), length) == name) return u32(at);
        at += 5 + length;
    }
    return 0;
}

std::vector<uint32_t> BOMBytes::leaves(uint32_t header) const {
    uint32_t node = u32(address(header) + 8);
    while (u16(address(node)) == 0) node = u32(address(node) + 12);
    std::vector<uint32_t> result;
    for (; node != 0; node = u32(address(node) + 4)) result.push_back(node);
    return result;
}

std::vector<BOMBytes::Item> BOMBytes::items() const {
    std::vector<Item> result;
    for (uint32_t leaf : leaves(variable("Paths"))) {
        size_t at = address(leaf);
        for (uint16_t i = 0; i < u16(at + 2); ++i) {
            Item item{};
            item.valueBlock = u32(at + 12 + size_t(i) * 8);
            item.keyBlock = u32(at + 16 + size_t(i) * 8);
            item.id = u32(address(item.valueBlock));
            item.infoBlock = u32(address(item.valueBlock) + 4);
            item.parent = u32(address(item.keyBlock));
            item.name = reinterpret_cast<const char*>(&bytes.at(address(item.keyBlock) + 4));
            result.push_back(item);
        }
    }
    return result;
}

BOMBytes::Item BOMBytes::item(std::string_view name) const {
    for (const Item& item : items())
        if (item.name == name) return item;
    throw std::runtime_error("no item " + std::string(name));
}

uint32_t BOMBytes::appendBlock(const std::vector<uint8_t>& block) {
    size_t table = u32(16);
    uint32_t count = blockCount();
    std::vector<uint8_t> pairs(bytes.begin() + std::ptrdiff_t(table + 4),
                               bytes.begin() + std::ptrdiff_t(table + 4 + size_t(count) * 8));
    bytes.resize((bytes.size() + 3) & ~size_t(3));
    size_t address = bytes.size();
    bytes.insert(bytes.end(), block.begin(), block.end());
    bytes.resize((bytes.size() + 3) & ~size_t(3));
    size_t newTable = bytes.size();
    bytes.resize(newTable + 4 + (size_t(count) + 1) * 8 + 20, 0);
    setU32(newTable, count + 1);
    std::memcpy(&bytes[newTable + 4], pairs.data(), pairs.size());
    setU32(newTable + 4 + size_t(count) * 8, uint32_t(address));
    setU32(newTable + 8 + size_t(count) * 8, uint32_t(block.size()));
    setU32(newTable + 4 + (size_t(count) + 1) * 8, 2);
    setU32(12, count);
    setU32(16, uint32_t(newTable));
    setU32(20, uint32_t(bytes.size() - newTable));
    return count;
}

std::shared_ptr<crateworks::CWBOM> BOMBytes::open() const {
    auto bom = crateworks::CWBOM::initWithBOMData(platform::Data(bytes.begin(), bytes.end()));
    auto walk = bom ? bom->directoryEnumerator() : nullptr;
    if (!walk) return nullptr;
    while (walk->nextObject()) (void)walk->fileAttributes();
    return walk->damaged() ? nullptr : bom;
}

}  // namespace bomtest
