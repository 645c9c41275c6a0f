// One package as a product names it: where it is, what it is, how big, its MD5.
//
// The reference keeps its dictionary (the form stored in a product's index) and the
// base URL its "URL" entry is relative to.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/URL.h"
#include "Platform/Value.h"

namespace crateworks {

class CWPackageReference {
public:
    // Null when "URL", "Identifier" or "Version" is missing or is not a string, or the URL
    // does not resolve or names no file (its path ends at a folder, ".", ".." or the root).
    static std::shared_ptr<CWPackageReference> initWithDictionaryRepresentation(
        const platform::Dictionary& dictionary, const std::optional<platform::URL>& baseURL);
    // Null when the identifier or version is empty or `URL` names no file. `URL` is stored
    // relative to `baseURL` when it lies below it.
    static std::shared_ptr<CWPackageReference> initWithURL(const platform::URL& URL, const std::string& identifier,
                                                           const std::string& version, uint64_t fileSize,
                                                           const std::optional<std::string>& MD5,
                                                           const std::optional<platform::URL>& baseURL = std::nullopt);

    const platform::Dictionary& dictionaryRepresentation() const { return dictionary_; }
    const std::optional<platform::URL>& baseURL() const { return baseURL_; }
    // "URL" resolved against the base URL.
    const platform::URL& URL() const { return url_; }
    const std::string& identifier() const;
    const std::string& version() const;
    // 0 when "Size" is absent.
    uint64_t fileSize() const;
    std::optional<std::string> MD5() const;

    std::shared_ptr<CWPackageReference> copy() const { return std::make_shared<CWPackageReference>(*this); }
    // Same identifier and version, and the same URL as written or, failing that, the same absolute URL.
    bool isEqual(const CWPackageReference& other) const;
    bool operator==(const CWPackageReference& other) const { return isEqual(other); }
    // Agrees with isEqual: built only from what every equal pair shares.
    size_t hash() const;

    CWPackageReference(platform::Dictionary dictionary, std::optional<platform::URL> baseURL, platform::URL url);

private:
    platform::Dictionary dictionary_;
    std::optional<platform::URL> baseURL_;
    platform::URL url_;
};

// Hashing and equality of shared references by value, for unordered containers.
struct CWPackageReferenceHash {
    size_t operator()(const std::shared_ptr<CWPackageReference>& r) const { return r ? r->hash() : 0; }
};
struct CWPackageReferenceEqual {
    bool operator()(const std::shared_ptr<CWPackageReference>& a, const std::shared_ptr<CWPackageReference>& b) const {
        return a == b || (a && b && a->isEqual(*b));
    }
};

}  // namespace crateworks
