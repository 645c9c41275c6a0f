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
#include <string_view>
#include <vector>
#include <sys/stat.h>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "CrateworksCore/Package_API/Receipts/CWReceipt.h"
#include "Platform/Checksum.h"
#include "Platform/Path.h"

namespace {

using crateworks::bom::BOMEntryView;
using crateworks::bom::BOMVisit;

// The folders whose files count as configuration, in their stored BOM form.
constexpr const char* kConfigurationFolders[] = {"./private/etc", "./Library/Preferences"};

// Whether the file on the volume differs from what the BOM says was installed; false
// when it is gone.
bool changedSinceInstall(const std::string& file, const BOMEntryView& entry) {
    struct stat st {};
    if (lstat(file.c_str(), &st) != 0) return false;
    if (!S_ISREG(st.st_mode)) return true;
    if ((st.st_mode & 07777) != (entry.mode() & 07777)) return true;
    auto checksum = platform::checksum::ofFile(file);
    return !checksum || *checksum != entry.checksum();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: pdExtraKeepPaths <volume root>\n");
        return 0;
    }
    std::string root = argv[1];
    // The volume root as the front of every file's path ("/a/b" is appended to it).
    std::string_view front = root;
    while (!front.empty() && front.back() == '/') front.remove_suffix(1);
    std::set<std::string> changed;
    std::vector<std::string> found;  // of one BOM, kept only when its walks end cleanly
    std::string file;
    // Only each receipt's BOM is read: its property list says nothing this tool needs.
    for (const auto& bomPath : crateworks::CWReceipt::_bomPathsOnVolumeAtPath(root)) {
        auto store = crateworks::bom::BOMStore::openFile(bomPath);
        if (!store) continue;
        found.clear();
        bool damaged = false;
        // Only the configuration folders are read: each is found by descending the BOM's
        // path tree and walked alone.
        for (const char* folder : kConfigurationFolders) {
            auto status = store->forEachAtPath(folder, [&](const BOMEntryView& entry) {
                if (entry.type() != crateworks::bom::kEntryFile) return BOMVisit::kContinue;
                std::string_view relative = entry.path().substr(1);  // "./a/b" -> "/a/b"
                file.assign(front);
                file.append(relative);
                if (changedSinceInstall(file, entry)) found.emplace_back(relative);
                return BOMVisit::kContinue;
            });
            damaged = damaged || status == crateworks::bom::BOMWalkStatus::kDamaged;
        }
        if (damaged) {
            fprintf(stderr, "pdExtraKeepPaths: %s: the BOM is damaged; it is left out\n", bomPath.c_str());
            continue;
        }
        for (auto& path : found) changed.insert(std::move(path));
    }
    for (const auto& path : changed) printf("%s\n", path.c_str());
    return 0;
}
