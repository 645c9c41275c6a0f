// One entry of a BOM walk as the walk hands it out: the stored path sits in the walk's
// own buffer and each field is decoded from the file's bytes only when asked for, so
// looking at an entry allocates nothing. Valid until the walk moves on; toEntry() makes
// a copy that lasts.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "CrateworksCore/Package_API/BOM/BOMEntry.h"

namespace crateworks::bom {

class BOMReader;

class BOMEntryView {
public:
    BOMEntryView() = default;
    // An entry of a BOM file: its info block, read only when a field is asked for, its id
    // for the 64-bit size table, its name and its stored path. An info block that is
    // missing or shorter than its fixed part reads as zeros and sets `*damaged`.
    BOMEntryView(const BOMReader* reader, uint32_t infoBlock, uint32_t id, std::string_view name,
                 std::string_view path, bool* damaged)
        : reader_(reader), infoBlock_(infoBlock), id_(id), name_(name), path_(path), damaged_(damaged) {}
    // The next entry of the same file, in place (the reader and the damage flag stay).
    void moveTo(uint32_t infoBlock, uint32_t id, std::string_view name, std::string_view path) {
        infoBlock_ = infoBlock;
        id_ = id;
        name_ = name;
        path_ = path;
    }
    // An entry held decoded (a BOM being built).
    BOMEntryView(const BOMEntry* entry, std::string_view path) : entry_(entry), name_(entry->shortName), path_(path) {}

    // The stored path: "." or "./usr/bin/ls".
    std::string_view path() const { return path_; }
    // The path with its "./" cut ("usr/bin/ls"); "." for the root.
    std::string_view relativePath() const { return path_.size() > 2 ? path_.substr(2) : path_; }
    // The last path component ("." for the root).
    std::string_view name() const { return name_; }

    // Whether the fields can be read (always for an entry held decoded).
    bool readable() const { return entry_ || !_info().empty(); }
    uint8_t type() const { return entry_ ? entry_->type : _u8(0); }
    bool isDirectory() const { return type() == kEntryDirectory; }
    uint16_t architecture() const { return entry_ ? entry_->architecture : _u16(2); }
    uint16_t mode() const { return entry_ ? entry_->mode : _u16(4); }
    uint32_t uid() const { return entry_ ? entry_->uid : _u32(6); }
    uint32_t gid() const { return entry_ ? entry_->gid : _u32(10); }
    uint32_t modificationTime() const { return entry_ ? entry_->modificationTime : _u32(14); }
    // From the 64-bit size table when the file has the entry there.
    uint64_t size() const;
    uint32_t checksum() const { return entry_ ? entry_->checksum : _u32(23); }
    // The recorded link target, cut at its NUL or at the end of the block.
    std::optional<std::string_view> linkTarget() const;

    // A decoded copy, path name and short name included.
    BOMEntry toEntry() const;

private:
    // The info block, at least its fixed part; empty (and the walk marked damaged) when
    // the block is missing or short.
    std::span<const uint8_t> _info() const;
    uint8_t _u8(size_t at) const {
        auto info = _info();
        return info.empty() ? 0 : info[at];
    }
    uint16_t _u16(size_t at) const {
        auto info = _info();
        return info.empty() ? 0 : uint16_t(info[at] << 8 | info[at + 1]);
    }
    uint32_t _u32(size_t at) const {
        auto info = _info();
        return info.empty() ? 0
                            : uint32_t(info[at]) << 24 | uint32_t(info[at + 1]) << 16 | uint32_t(info[at + 2]) << 8 |
                                  uint32_t(info[at + 3]);
    }

    const BOMReader* reader_ = nullptr;
    const BOMEntry* entry_ = nullptr;
    uint32_t infoBlock_ = 0;
    uint32_t id_ = 0;
    std::string_view name_;
    std::string_view path_;
    bool* damaged_ = nullptr;
};

}  // namespace crateworks::bom
