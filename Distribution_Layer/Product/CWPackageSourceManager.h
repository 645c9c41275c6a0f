// Which reference to fetch for a package, across every source of package references.
//
// Sources are kept in the order they were added, each with a distance (nearer is
// cheaper). Queries may come from several threads; one recursive lock covers them.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Distribution_Layer/Product/CWPackageSource.h"

namespace crateworks {

class CWPackageSourceManager {
public:
    // Invalidation reasons: the reference's URL failed, or its data did (every copy with that MD5).
    static constexpr int kReasonURL = 0;
    static constexpr int kReasonDownload = 10;
    static constexpr int kReasonChecksum = 20;

    // The one manager of the process.
    static CWPackageSourceManager& defaultManager();

    void addSource(const std::shared_ptr<CWPackageSource>& source, int distance);
    void removeSource(const std::shared_ptr<CWPackageSource>& source);
    std::vector<std::shared_ptr<CWPackageSource>> allPackageSources() const;

    // The nearest valid candidate; without a version the highest version first, then the smallest file.
    std::shared_ptr<CWPackageReference> bestPackageReferenceMatchingIdentifier(
        const std::string& identifier, const std::optional<std::string>& version);
    // The distance of the first source holding the reference; 0 (not remembered) when none does.
    int distanceForPackageReference(const std::shared_ptr<CWPackageReference>& reference);
    void invalidatePackageReference(const std::shared_ptr<CWPackageReference>& reference, int reason);
    void clearInvalidationList();

    CWPackageSourceManager() = default;

private:
    std::vector<std::shared_ptr<CWPackageReference>> _candidates(const std::string& identifier,
                                                                 const std::optional<std::string>& version) const;
    bool _isInvalidated(const CWPackageReference& candidate) const;

    using RefMap = std::unordered_map<std::shared_ptr<CWPackageReference>, int, CWPackageReferenceHash,
                                      CWPackageReferenceEqual>;

    std::vector<std::shared_ptr<CWPackageSource>> packageSources_;
    std::unordered_map<const CWPackageSource*, int> sourcePointerToDistanceDict_;
    RefMap refToDistanceCache_;
    RefMap invalidatedPackageReferencesToReasonDict_;
    mutable std::recursive_mutex queryLock_;
};

}  // namespace crateworks
