#include "CrateworksCore/Package_API/Receipts/CWReceiptsCache.h"

namespace crateworks {

std::optional<CWReceiptsCache::ReceiptList> CWReceiptsCache::objectForKey(const std::string& volumePath) const {
    std::lock_guard lock(mutex_);
    if (!volumePath_ || *volumePath_ != volumePath) return std::nullopt;
    return receipts_;
}

void CWReceiptsCache::replaceAllObjects(const std::string& volumePath, ReceiptList receipts) {
    std::lock_guard lock(mutex_);
    volumePath_ = volumePath;
    receipts_ = std::move(receipts);
}

void CWReceiptsCache::removeAllObjects() {
    std::lock_guard lock(mutex_);
    volumePath_.reset();
    receipts_.clear();
}

}  // namespace crateworks
