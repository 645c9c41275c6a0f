// Object identifiers, kept as the content bytes of their DER encoding and compared by
// those bytes (length and content), as certificates carry them.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Value.h"

namespace platform::security {

class Oid {
public:
    Oid() = default;
    explicit Oid(Data contentBytes) : bytes_(std::move(contentBytes)) {}

    // "2.5.29.19" and the like; absent when the text is not a dotted OID.
    static std::optional<Oid> fromDotted(std::string_view dotted);
    // The dotted form; empty when the bytes do not encode an OID.
    std::string dotted() const;
    const Data& bytes() const { return bytes_; }
    bool empty() const { return bytes_.empty(); }

    bool operator==(const Oid&) const = default;

private:
    Data bytes_;
};

}  // namespace platform::security
