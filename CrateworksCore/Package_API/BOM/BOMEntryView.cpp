#include "CrateworksCore/Package_API/BOM/BOMEntryView.h"

#include <cstring>

#include "CrateworksCore/Package_API/BOM/BOMFormat.h"
#include "CrateworksCore/Package_API/BOM/BOMReader.h"

namespace crateworks::bom {

std::span<const uint8_t> BOMEntryView::_info() const {
    auto info = reader_ ? reader_->block(infoBlock_) : std::nullopt;
    if (info && info->size() >= format::kInfoFixedSize) return *info;
    if (damaged_) *damaged_ = true;
    return {};
}

uint64_t BOMEntryView::size() const {
    if (entry_) return entry_->size;
    return reader_ ? reader_->sizeOf(id_, _u32(18)) : _u32(18);
}

std::optional<std::string_view> BOMEntryView::linkTarget() const {
    if (entry_) return entry_->linkTarget ? std::optional<std::string_view>(*entry_->linkTarget) : std::nullopt;
    auto info = _info();
    uint32_t length = _u32(27);
    if (length == 0 || format::kInfoFixedSize + uint64_t(length) > info.size()) return std::nullopt;
    const char* link = reinterpret_cast<const char*>(info.data() + format::kInfoFixedSize);
    return std::string_view(link, strnlen(link, length));
}

BOMEntry BOMEntryView::toEntry() const {
    if (entry_) {
        BOMEntry copy = *entry_;
        copy.pathName.assign(path_);
        return copy;
    }
    BOMEntry entry;
    entry.type = type();
    entry.architecture = architecture();
    entry.mode = mode();
    entry.uid = uid();
    entry.gid = gid();
    entry.modificationTime = modificationTime();
    entry.size = size();
    entry.checksum = checksum();
    if (auto link = linkTarget()) entry.linkTarget.emplace(*link);
    entry.pathName.assign(path_);
    entry.shortName.assign(name_);
    return entry;
}

}  // namespace crateworks::bom
