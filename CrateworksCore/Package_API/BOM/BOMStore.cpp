#include "CrateworksCore/Package_API/BOM/BOMStore.h"

#include "CrateworksCore/Package_API/BOM/BOMReader.h"
#include "CrateworksCore/Package_API/BOM/BOMWriter.h"
#include "Platform/FileSystem.h"
#include "Platform/MappedFile.h"
#include "Platform/Path.h"

namespace crateworks::bom {

BOMEnumerator::BOMEnumerator(std::shared_ptr<const BOMTree> tree, NodeIndex start, std::string startPath)
    : tree_(std::move(tree)), walkOrder_(tree_->walkOrder()), last_(start) {
    entry_.pathName = std::move(startPath);
    if (walkOrder_) {
        stop_ = walkOrder_->nodes[start].end;
        startDepth_ = walkOrder_->nodes[start].depth;
        pathLengths_.push_back(entry_.pathName.size());
    }
}

bool BOMEnumerator::_advance() {
    if (!last_) return false;
    decoded_ = false;
    if (!started_) {
        started_ = true;
        return true;
    }
    std::string& path = entry_.pathName;
    if (!skip_ && !tree_->children(*last_).empty()) stack_.push_back(Frame{*last_, 0, path.size()});
    skip_ = false;
    while (!stack_.empty()) {
        Frame& frame = stack_.back();
        auto kids = tree_->children(frame.directory);
        if (frame.nextChild < kids.size()) {
            NodeIndex child = kids[frame.nextChild++];
            std::string_view name = tree_->name(child);
            _setPath(frame.pathLength, name.data(), name.size());
            last_ = child;
            return true;
        }
        stack_.pop_back();
    }
    last_.reset();
    return false;
}

const BOMEntry& BOMEnumerator::entry() {
    if (!decoded_ && last_) {
        tree_->fill(*last_, entry_);
        decoded_ = true;
    }
    return entry_;
}

BOMStore::BOMStore(std::shared_ptr<const BOMTree> tree, std::shared_ptr<BOMWriter> writer, std::string path)
    : tree_(std::move(tree)), writer_(std::move(writer)), path_(std::move(path)) {}

std::shared_ptr<BOMStore> BOMStore::openFile(const std::string& path) {
    auto file = platform::MappedFile::open(path);
    if (!file) return nullptr;
    auto reader = BOMReader::open(file->bytes(), file);
    if (!reader) return nullptr;
    return std::shared_ptr<BOMStore>(new BOMStore(reader, nullptr, path));
}

std::shared_ptr<BOMStore> BOMStore::openBytes(std::span<const uint8_t> bytes) {
    auto reader = BOMReader::open(bytes, nullptr);
    if (!reader) return nullptr;
    return std::shared_ptr<BOMStore>(new BOMStore(reader, nullptr, {}));
}

std::shared_ptr<BOMStore> BOMStore::newBOM(const std::string& path) {
    std::string directory = platform::path::deletingLastComponent(path);
    bool isDirectory = false;
    if (path.empty() || !platform::fs::exists(directory.empty() ? "." : directory, &isDirectory) || !isDirectory)
        return nullptr;
    auto writer = std::make_shared<BOMWriter>();
    return std::shared_ptr<BOMStore>(new BOMStore(writer, writer, path));
}

std::shared_ptr<BOMStore> BOMStore::newFromDirectory(const std::string& path, const std::string& directory,
                                                     bool allData) {
    auto store = newBOM(path);
    if (!store || !store->writer_->addDirectory(directory, allData)) return nullptr;
    return store;
}

std::optional<BOMEntry> BOMStore::rootEntry() const { return entryAtPath("."); }

std::optional<BOMEntry> BOMStore::entryAtPath(std::string_view path) const {
    auto node = tree_->find(path);
    if (!node) return std::nullopt;
    BOMEntry entry;
    tree_->fill(*node, entry);
    entry.pathName = tree_->pathOf(*node);
    return entry;
}

bool BOMStore::entryExists(std::string_view path) const { return tree_->find(path).has_value(); }

bool BOMStore::insertEntry(const BOMEntry& entry, bool replace) { return writer_ && writer_->insert(entry, replace); }

uint32_t BOMStore::entryCount() const { return tree_->count(); }

uint64_t BOMStore::bytesRepresented() const { return tree_->bytesRepresented(); }

std::unique_ptr<BOMEnumerator> BOMStore::newEnumerator(const BOMEntry& start) const {
    auto node = tree_->find(start.pathName);
    if (!node) return nullptr;
    return std::make_unique<BOMEnumerator>(tree_, *node, tree_->pathOf(*node));
}

bool BOMStore::mask(const BOMPatternList& patterns) {
    if (!writer_) return false;
    writer_->mask(patterns);
    return true;
}

bool BOMStore::commit() {
    if (!writer_) return false;
    auto bytes = writer_->serialize();
    return bytes && platform::fs::writeFileAtomically(path_, *bytes);
}

}  // namespace crateworks::bom
