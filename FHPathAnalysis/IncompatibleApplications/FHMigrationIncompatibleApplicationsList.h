// The applications known not to work on the new release, by path, so that migration
// can leave them behind. The list is a property-list resource of the running support
// framework; it is prepared for one system (per-user "~" paths expanded for its users)
// and then answers, path by path, whether an item is listed, optionally narrowed by
// file checksum or by bundle version range.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Value.h"

class FHSystem;

class FHMigrationIncompatibleApplicationsList {
public:
    // Keys of the list file and of its entries.
    static constexpr const char* kIncompatiblePathsKey = "IncompatiblePaths";
    static constexpr const char* kPathKey = "Path";
    static constexpr const char* kPathsKey = "Paths";
    static constexpr const char* kKnownChecksumsKey = "KnownChecksums";
    static constexpr const char* kMinimumBundleVersionKey = "MinimumBundleVersion";
    static constexpr const char* kMaximumBundleVersionKey = "MaximumBundleVersion";
    // The typed-log type of every message of the list.
    static constexpr int32_t kLogType = 100;

    FHMigrationIncompatibleApplicationsList() = default;
    virtual ~FHMigrationIncompatibleApplicationsList() = default;

    // Replaces the list by the resource `name` (type "plist") prepared for `system`.
    // False when the resource cannot be read; the list is then empty.
    bool prepareIncompatibleApplicationsList(const std::string& name, const FHSystem& system);
    // Whether the volume-relative path is listed and its checksum or bundle version
    // (when the entry names any) is one of the incompatible ones.
    bool isPathInIncompatibleApplicationsList(const std::string& path) const;
    // The resource `name` of type "plist" of the running framework as a dictionary;
    // absent (and logged) when it cannot be read.
    std::optional<platform::Dictionary> loadPlist(const std::string& name) const;

    // Every listed path (as written and expanded) to its entry.
    const platform::Dictionary& iaList() const { return iaList_; }
    const std::string& systemRootPath() const { return systemRootPath_; }

protected:
    // Sends one message to the typed log; the line is the one hosts know the message by.
    virtual void _log(const char* function, int32_t line, std::string_view message) const;

private:
    void _addEntry(const platform::Value& entry, const FHSystem& system);
    void _mapPath(const std::string& path, const platform::Value& entry, const FHSystem& system);
    // The checksum test of step 2: absent when the entry lists no checksums.
    std::optional<bool> _matchesKnownChecksum(const std::string& path, const platform::Dictionary& entry) const;
    bool _matchesVersionRange(const std::string& path, const platform::Dictionary& entry) const;

    platform::Dictionary iaList_;
    std::string systemRootPath_;
};
