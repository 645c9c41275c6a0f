#include "Platform/BlockDevice.h"

#include <blkid.h>
#include <sys/stat.h>

#include "Platform/File.h"
#include "Platform/LazyLibrary.h"

namespace platform::blockdevice {

namespace {

// libblkid, loaded when a label is first asked for (Platform/LazyLibrary).
#define FERRYHOLD_BLKID_FUNCTIONS(X, ...)                                                            \
    X(__VA_ARGS__, new_probe) X(__VA_ARGS__, free_probe) X(__VA_ARGS__, probe_set_device)              \
    X(__VA_ARGS__, probe_enable_superblocks) X(__VA_ARGS__, probe_set_superblocks_flags)               \
    X(__VA_ARGS__, do_safeprobe) X(__VA_ARGS__, probe_lookup_value)
FERRYHOLD_LAZY_TABLE(BlkidLibrary, "libblkid.so.1", FERRYHOLD_BLKID_FUNCTIONS, blkid_);

}  // namespace

std::optional<std::string> fileSystemLabel(const std::string& device) {
    auto file = fs::File::open(device, {.nonBlocking = true});
    if (!file) return std::nullopt;
    struct stat st {};
    if (fstat(file->descriptor(), &st) != 0 || !(S_ISBLK(st.st_mode) || S_ISREG(st.st_mode))) return std::nullopt;
    // Without the library no label can be read; the volume is named otherwise.
    const BlkidLibrary* blkid = detail::lazyTable<BlkidLibrary>();
    if (!blkid) return std::nullopt;
    blkid_probe probe = blkid->new_probe();
    if (!probe) return std::nullopt;
    std::optional<std::string> label;
    if (blkid->probe_set_device(probe, file->descriptor(), 0, 0) == 0) {
        blkid->probe_enable_superblocks(probe, 1);
        blkid->probe_set_superblocks_flags(probe, BLKID_SUBLKS_LABEL | BLKID_SUBLKS_TYPE);
        const char* value = nullptr;
        if (blkid->do_safeprobe(probe) == 0 && blkid->probe_lookup_value(probe, "LABEL", &value, nullptr) == 0 && value &&
            *value)
            label = value;
    }
    blkid->free_probe(probe);
    return label;
}

}  // namespace platform::blockdevice
