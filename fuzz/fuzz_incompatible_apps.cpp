// Fuzzes the incompatible-applications list: the input's parts are the list (a
// property-list resource of a bundle of its own) and the volume's /etc/passwd, whose
// home folders the list's "~" paths expand to. A small volume holds applications and
// a plug-in to ask about, by version range and by checksum.
//
// A listed checksum is of the file at the path as given, so the volume's root is the
// working directory while the list is asked, and only relative paths without ".."
// are asked: the list is never asked to read outside the volume.
#include <cstdint>
#include <unistd.h>

#include "FHPathAnalysis/ConfMigrator/FHSystem.h"
#include "FHPathAnalysis/IncompatibleApplications/FHMigrationIncompatibleApplicationsList.h"
#include "FuzzSupport.h"
#include "Platform/Framework.h"

namespace {

// The list's messages go nowhere.
class QuietList : public FHMigrationIncompatibleApplicationsList {
protected:
    void _log(const char*, int32_t, std::string_view) const override {}
};

const char* const kAsked[] = {
    "Applications/Old.app",
    "Applications/Old.app/Contents/MacOS/Old",
    "Applications/New.app",
    "Users/alice/Applications/Tool.app",
    "Library/Internet Plug-Ins/Old.plugin",
    "Applications/Missing.app",
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 2);
    parts.resize(2);
    fuzzsupport::Scratch scratch;
    if (!scratch.ok()) return 0;
    const std::string appInfo =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
        "<key>CFBundleIdentifier</key><string>com.example.old</string>\n"
        "<key>CFBundleShortVersionString</key><string>2.1.3</string>\n</dict>\n</plist>\n";
    if (!scratch.write("Ferryhold.framework/Resources/Incompatible.plist", parts[0]) ||
        !scratch.write("volume/etc/passwd", parts[1]) ||
        !scratch.write("volume/Applications/Old.app/Contents/Info.plist", appInfo) ||
        !scratch.write("volume/Applications/Old.app/Contents/MacOS/Old", "old program\n") ||
        !scratch.write("volume/Applications/New.app/Contents/Info.plist", "not a property list") ||
        !scratch.write("volume/Users/alice/Applications/Tool.app/Contents/MacOS/Tool", "tool\n") ||
        !scratch.write("volume/Library/Internet Plug-Ins/Old.plugin", "plug-in\n") ||
        !scratch.makeDirectory("volume/var/home/bob"))
        return 0;
    platform::framework::setBundlePathOverride(scratch / "Ferryhold.framework");
    FHSystem system(scratch / "volume");
    QuietList list;
    if (list.prepareIncompatibleApplicationsList("Incompatible", system)) {
        char* previous = getcwd(nullptr, 0);
        if (previous && chdir(system.path().c_str()) == 0) {
            for (const char* path : kAsked) (void)list.isPathInIncompatibleApplicationsList(path);
            size_t asked = 0;
            for (const auto& [path, entry] : list.iaList()) {
                if (asked == 16) break;
                if (path.empty() || path[0] == '/' || path.find("..") != std::string::npos) continue;
                (void)list.isPathInIncompatibleApplicationsList(path);
                ++asked;
            }
            if (chdir(previous) != 0) abort();
        }
        free(previous);
    }
    platform::framework::setBundlePathOverride(std::nullopt);
    return 0;
}
