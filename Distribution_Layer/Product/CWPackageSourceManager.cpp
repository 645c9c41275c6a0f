#include "Distribution_Layer/Product/CWPackageSourceManager.h"

#include <algorithm>

#include "Platform/Strings.h"

namespace crateworks {

CWPackageSourceManager& CWPackageSourceManager::defaultManager() {
    static CWPackageSourceManager manager;
    return manager;
}

void CWPackageSourceManager::addSource(const std::shared_ptr<CWPackageSource>& source, int distance) {
    std::lock_guard lock(queryLock_);
    packageSources_.push_back(source);
    sourcePointerToDistanceDict_[source.get()] = distance;
}

void CWPackageSourceManager::removeSource(const std::shared_ptr<CWPackageSource>& source) {
    std::lock_guard lock(queryLock_);
    std::erase(packageSources_, source);
    sourcePointerToDistanceDict_.erase(source.get());
    // Distances learnt from the source no longer hold.
    refToDistanceCache_.clear();
}

std::vector<std::shared_ptr<CWPackageSource>> CWPackageSourceManager::allPackageSources() const {
    std::lock_guard lock(queryLock_);
    return packageSources_;
}

std::vector<std::shared_ptr<CWPackageReference>> CWPackageSourceManager::_candidates(
    const std::string& identifier, const std::optional<std::string>& version) const {
    std::vector<std::shared_ptr<CWPackageReference>> candidates;
    for (const auto& source : packageSources_) {
        if (auto own = source->packageReferencesMatchingIdentifier(identifier, version)) {
            candidates.insert(candidates.end(), own->begin(), own->end());
            continue;
        }
        for (auto& reference : source->allPackageReferences())
            if (reference->identifier() == identifier && (!version || reference->version() == *version))
                candidates.push_back(std::move(reference));
    }
    return candidates;
}

bool CWPackageSourceManager::_isInvalidated(const CWPackageReference& candidate) const {
    for (const auto& [reference, reason] : invalidatedPackageReferencesToReasonDict_) {
        if (reason == kReasonChecksum) {
            if (reference->MD5() && reference->MD5() == candidate.MD5()) return true;
        } else if (reason == kReasonURL || reason == kReasonDownload) {
            if (reference->URL() == candidate.URL()) return true;
        }
    }
    return false;
}

std::shared_ptr<CWPackageReference> CWPackageSourceManager::bestPackageReferenceMatchingIdentifier(
    const std::string& identifier, const std::optional<std::string>& version) {
    std::lock_guard lock(queryLock_);
    auto candidates = _candidates(identifier, version);
    std::stable_sort(candidates.begin(), candidates.end(), [&](const auto& a, const auto& b) {
        if (!version) {
            int order = platform::str::numericCompare(a->version(), b->version());
            if (order != 0) return order > 0;
        }
        return a->fileSize() < b->fileSize();
    });
    std::erase_if(candidates, [&](const auto& candidate) { return _isInvalidated(*candidate); });
    std::shared_ptr<CWPackageReference> best;
    int bestDistance = 0;
    for (const auto& candidate : candidates) {
        int distance = distanceForPackageReference(candidate);
        if (!best || distance < bestDistance) best = candidate, bestDistance = distance;
    }
    return best;
}

int CWPackageSourceManager::distanceForPackageReference(const std::shared_ptr<CWPackageReference>& reference) {
    std::lock_guard lock(queryLock_);
    if (auto cached = refToDistanceCache_.find(reference); cached != refToDistanceCache_.end()) return cached->second;
    for (const auto& source : packageSources_) {
        auto all = source->allPackageReferences();
        bool holds = std::any_of(all.begin(), all.end(), [&](const auto& r) { return r->isEqual(*reference); });
        if (!holds) continue;
        int distance = sourcePointerToDistanceDict_[source.get()];
        refToDistanceCache_[reference] = distance;
        return distance;
    }
    return 0;
}

void CWPackageSourceManager::invalidatePackageReference(const std::shared_ptr<CWPackageReference>& reference,
                                                        int reason) {
    std::lock_guard lock(queryLock_);
    invalidatedPackageReferencesToReasonDict_[reference] = reason;
}

void CWPackageSourceManager::clearInvalidationList() {
    std::lock_guard lock(queryLock_);
    invalidatedPackageReferencesToReasonDict_.clear();
}

}  // namespace crateworks
