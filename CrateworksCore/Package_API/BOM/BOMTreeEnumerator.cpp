#include "CrateworksCore/Package_API/BOM/BOMTreeEnumerator.h"

namespace crateworks::bom {

BOMTreeEnumerator::BOMTreeEnumerator(std::shared_ptr<const BOMTree> tree, NodeIndex start, std::string startPath)
    : tree_(std::move(tree)), last_(start), path_(std::move(startPath)) {}

bool BOMTreeEnumerator::advance() {
    if (!last_) return false;
    if (!started_) {
        started_ = true;
    } else {
        if (!skip_ && !tree_->children(*last_).empty()) stack_.push_back(Frame{*last_, 0, path_.size()});
        skip_ = false;
        last_.reset();
        while (!stack_.empty()) {
            Frame& frame = stack_.back();
            auto kids = tree_->children(frame.directory);
            if (frame.nextChild < kids.size()) {
                NodeIndex child = kids[frame.nextChild++];
                path_.resize(frame.pathLength);
                path_ += '/';
                path_ += tree_->name(child);
                last_ = child;
                break;
            }
            stack_.pop_back();
        }
        if (!last_) return false;
    }
    tree_->fill(*last_, current_);
    view_ = BOMEntryView(&current_, path_);
    return true;
}

}  // namespace crateworks::bom
