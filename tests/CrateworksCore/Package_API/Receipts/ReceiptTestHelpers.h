// Helpers shared by the receipt tests.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/Log.h"

namespace receipttests {

// Collects what is sent to the system log while it lives.
class SystemLogCapture {
public:
    SystemLogCapture() {
        previous_ = platform::setSystemLogSink(
            [this](int priority, std::string_view message) { lines.emplace_back(priority, std::string(message)); });
    }
    ~SystemLogCapture() { platform::setSystemLogSink(previous_); }
    SystemLogCapture(const SystemLogCapture&) = delete;
    SystemLogCapture& operator=(const SystemLogCapture&) = delete;

    std::vector<std::pair<int, std::string>> lines;

private:
    platform::SystemLogSink previous_;
};

inline std::vector<std::string> identifiers(const crateworks::CWReceipt::ReceiptList& receipts) {
    std::vector<std::string> out;
    for (const auto& receipt : receipts) out.push_back(receipt->packageIdentifier().value_or("(none)"));
    return out;
}

// Every path a receipt's BOM lists, in walk order; empty when the BOM cannot be opened.
std::vector<std::string> bomPaths(crateworks::CWReceipt& receipt);

}  // namespace receipttests
