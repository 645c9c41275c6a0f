#include "CrateworksCore/Package_API/BOM/BOMStore.h"

#include <cerrno>

#include "CrateworksCore/Package_API/BOM/BOMCursor.h"
#include "CrateworksCore/Package_API/BOM/BOMReader.h"
#include "CrateworksCore/Package_API/BOM/BOMTreeEnumerator.h"
#include "CrateworksCore/Package_API/BOM/BOMWriter.h"
#include "Platform/FileSystem.h"
#include "Platform/MappedFile.h"
#include "Platform/Path.h"

namespace crateworks::bom {

BOMStore::BOMStore(std::shared_ptr<const BOMTree> tree, std::shared_ptr<const BOMReader> reader,
                   std::shared_ptr<BOMWriter> writer, std::string path)
    : tree_(std::move(tree)), reader_(std::move(reader)), writer_(std::move(writer)), path_(std::move(path)) {}

std::shared_ptr<BOMStore> BOMStore::openFile(const std::string& path) {
    // A walk or a look-up reads only the pages it reaches.
    auto file = platform::MappedFile::open(path, platform::MappedFile::Pages::onDemand);
    if (!file) return nullptr;
    auto reader = BOMReader::open(file->bytes(), file);
    if (!reader) return nullptr;
    return std::shared_ptr<BOMStore>(new BOMStore(reader, reader, nullptr, path));
}

std::shared_ptr<BOMStore> BOMStore::openBytes(std::span<const uint8_t> bytes) {
    auto reader = BOMReader::open(bytes, nullptr);
    if (!reader) return nullptr;
    return std::shared_ptr<BOMStore>(new BOMStore(reader, reader, nullptr, {}));
}

std::shared_ptr<BOMStore> BOMStore::newBOM(const std::string& path) {
    std::string directory = platform::path::deletingLastComponent(path);
    bool isDirectory = false;
    if (path.empty() || !platform::fs::exists(directory.empty() ? "." : directory, &isDirectory) || !isDirectory)
        return nullptr;
    auto writer = std::make_shared<BOMWriter>();
    return std::shared_ptr<BOMStore>(new BOMStore(writer, nullptr, writer, path));
}

std::shared_ptr<BOMStore> BOMStore::newFromDirectory(const std::string& path, const std::string& directory,
                                                     bool allData) {
    auto store = newBOM(path);
    if (!store || !store->writer_->addDirectory(directory, allData)) return nullptr;
    return store;
}

std::optional<BOMEntry> BOMStore::rootEntry() const { return entryAtPath("."); }

std::optional<BOMEntry> BOMStore::entryAtPath(std::string_view path) const {
    if (reader_) {
        auto walk = BOMCursor::atPath(reader_, path);
        if (!walk || !walk->advance() || !walk->view().readable()) return std::nullopt;
        return walk->view().toEntry();
    }
    auto node = tree_->find(path);
    if (!node) return std::nullopt;
    BOMEntry entry;
    tree_->fill(*node, entry);
    entry.pathName = tree_->pathOf(*node);
    return entry;
}

bool BOMStore::entryExists(std::string_view path) const {
    if (reader_) return BOMCursor::atPath(reader_, path) != nullptr;
    return tree_->find(path).has_value();
}

bool BOMStore::insertEntry(const BOMEntry& entry, bool replace) { return writer_ && writer_->insert(entry, replace); }

uint32_t BOMStore::entryCount() const { return tree_->count(); }

uint64_t BOMStore::bytesRepresented() const { return tree_->bytesRepresented(); }

std::unique_ptr<BOMEnumerator> BOMStore::newEnumerator(const BOMEntry& start) const {
    return enumeratorAtPath(start.pathName);
}

std::unique_ptr<BOMEnumerator> BOMStore::enumeratorAtPath(std::string_view path) const {
    if (reader_) return BOMCursor::atPath(reader_, path);
    auto node = tree_->find(path);
    if (!node) return nullptr;
    return std::make_unique<BOMTreeEnumerator>(tree_, *node, tree_->pathOf(*node));
}

std::optional<BOMWalkStatus> BOMStore::walk(std::string_view path, BOMVisitor& visitor) const {
    if (reader_) {
        bool damaged = false;
        auto cursor = BOMCursor::atPath(reader_, path, &damaged);
        if (!cursor) return damaged ? std::optional(BOMWalkStatus::kDamaged) : std::nullopt;
        return cursor->visitRemaining(visitor);
    }
    auto enumerator = enumeratorAtPath(path);
    if (!enumerator) return std::nullopt;
    return enumerator->visitRemaining(visitor);
}

bool BOMStore::mask(const BOMPatternList& patterns) {
    if (!writer_) return false;
    writer_->mask(patterns);
    return true;
}

bool BOMStore::commit(platform::Error* error) {
    if (!writer_) return false;
    auto bytes = writer_->serialize();
    if (!bytes) {
        if (error) *error = platform::fs::posixError(EINVAL, path_, "the BOM cannot be laid out");
        return false;
    }
    return platform::fs::writeFileAtomically(path_, *bytes, error);
}

}  // namespace crateworks::bom
