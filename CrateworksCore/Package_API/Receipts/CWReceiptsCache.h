// The process-wide cache of receipt lists behind CWReceipt::receiptsOnVolumeAtPath.
// It holds the receipts of at most one volume: storing a new volume's list drops the
// previous one. Safe to use from several threads.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace crateworks {

class CWReceipt;

class CWReceiptsCache {
public:
    using ReceiptList = std::vector<std::shared_ptr<CWReceipt>>;

    // The list stored for the volume path; absent on a miss.
    std::optional<ReceiptList> objectForKey(const std::string& volumePath) const;
    // Empties the cache, then stores the list for the volume path.
    void replaceAllObjects(const std::string& volumePath, ReceiptList receipts);
    void removeAllObjects();

private:
    mutable std::mutex mutex_;
    std::optional<std::string> volumePath_;
    ReceiptList receipts_;
};

}  // namespace crateworks
