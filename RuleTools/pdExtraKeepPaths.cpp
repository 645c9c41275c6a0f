// pdExtraKeepPaths ROOT
//
// The rule-data tool of the configuration migrator: prints, one per line, the
// volume-relative paths of configuration files (under /private/etc and
// /Library/Preferences) that the volume's receipts installed as regular files and that
// someone has changed since: their contents no longer match the checksum their BOM
// recorded, or their permissions differ. Such files must be kept by an installation.
// Files that are gone are skipped; a volume without receipts prints nothing. Exits 0.
#include <cstdio>
#include <set>
#include <string>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/Checksum.h"
#include "Platform/Path.h"

namespace {

using crateworks::bom::BOMEntry;

// The folders whose files count as configuration, in their stored BOM form.
constexpr const char* kConfigurationFolders[] = {"./private/etc", "./Library/Preferences"};

// Whether the file on the volume differs from what the BOM says was installed; false
// when it is gone.
bool changedSinceInstall(const std::string& file, const BOMEntry& entry) {
    struct stat st {};
    if (lstat(file.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) return true;
    if ((st.st_mode & 07777) != (entry.mode & 07777)) return true;
    auto checksum = platform::checksum::ofFile(file);
    return !checksum || *checksum != entry.checksum;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: pdExtraKeepPaths <volume root>\n");
        return 0;
    }
    std::string root = argv[1];
    std::set<std::string> changed;
    for (const auto& receipt : crateworks::CWReceipt::_findReceiptsOnVolumeAtPath(root)) {
        auto store = crateworks::bom::BOMStore::openFile(receipt->bomPath());
        if (!store) continue;
        // Only the configuration folders are walked, not the whole bill of materials.
        for (const char* folder : kConfigurationFolders) {
            auto start = store->entryAtPath(folder);
            auto walk = start ? store->newEnumerator(*start) : nullptr;
            if (!walk) continue;
            while (const BOMEntry* entry = walk->next()) {
                if (entry->type != crateworks::bom::kEntryFile) continue;
                std::string relative = entry->pathName.substr(1);  // "./a/b" -> "/a/b"
                if (changedSinceInstall(platform::path::appendComponent(root, relative), *entry)) changed.insert(relative);
            }
        }
    }
    for (const auto& path : changed) printf("%s\n", path.c_str());
    return 0;
}
