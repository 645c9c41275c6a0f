// The system path cache on the analysed volume:
// {root}/Library/Caches/com.quarn.FindSystemFiles.plist, holding "systemPaths" and
// "MigrationDatabaseVersion".
//
// A cache is believed only when it is a regular file (a symbolic link never is) owned
// by user 0 and group 0 with mode exactly 0644, newer than the exclusion list, the
// system receipts (or, without a receipt date, than seven days ago) and the rule
// files, and computed against migration data no older than the current one; its
// content is read only after the tests on its attributes and dates have passed. Only the
// superuser writes it, through a temporary file and a rename, never through a link.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Value.h"

class FHSystemPathCache {
public:
    static constexpr const char* kCachePath = "/Library/Caches/com.quarn.FindSystemFiles.plist";

    // `latestReceiptDate`: the latest system receipt install date, absent when unknown.
    FHSystemPathCache(std::string root, std::optional<platform::Date> latestReceiptDate);

    const std::string& path() const { return path_; }

    // The cached paths when every validity test passes; logs which cache version it uses,
    // or why a version is stale.
    std::optional<std::vector<std::string>> read() const;
    // Stores freshly found paths when running as the superuser; logs otherwise.
    void write(const std::vector<std::string>& systemPaths) const;

private:
    bool datesAllow(const platform::Dictionary& attributes) const;

    std::string path_;
    std::optional<platform::Date> latestReceiptDate_;
};
