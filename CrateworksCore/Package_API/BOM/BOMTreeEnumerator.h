// The walk over a BOM being built (or any tree that answers children by node): a stack
// of directories with the next child of each, the path kept in one buffer.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMEnumerator.h"
#include "CrateworksCore/Package_API/BOM/BOMTree.h"

namespace crateworks::bom {

class BOMTreeEnumerator : public BOMEnumerator {
public:
    BOMTreeEnumerator(std::shared_ptr<const BOMTree> tree, NodeIndex start, std::string startPath);

    bool advance() override;
    void skipDescendants() override { skip_ = true; }

private:
    struct Frame {
        NodeIndex directory;
        uint32_t nextChild;
        size_t pathLength;  // of the directory's path
    };

    std::shared_ptr<const BOMTree> tree_;
    std::optional<NodeIndex> last_;  // absent after the last entry
    bool started_ = false;
    bool skip_ = false;
    std::vector<Frame> stack_;
    std::string path_;
    BOMEntry current_;
};

}  // namespace crateworks::bom
