#include "Platform/BlockDevice.h"

#include <blkid.h>
#include <sys/stat.h>

#include "Platform/File.h"

namespace platform::blockdevice {

std::optional<std::string> fileSystemLabel(const std::string& device) {
    auto file = fs::File::open(device, {.nonBlocking = true});
    if (!file) return std::nullopt;
    struct stat st {};
    if (fstat(file->descriptor(), &st) != 0 || !(S_ISBLK(st.st_mode) || S_ISREG(st.st_mode))) return std::nullopt;
    blkid_probe probe = blkid_new_probe();
    if (!probe) return std::nullopt;
    std::optional<std::string> label;
    if (blkid_probe_set_device(probe, file->descriptor(), 0, 0) == 0) {
        blkid_probe_enable_superblocks(probe, 1);
        blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_LABEL | BLKID_SUBLKS_TYPE);
        const char* value = nullptr;
        if (blkid_do_safeprobe(probe) == 0 && blkid_probe_lookup_value(probe, "LABEL", &value, nullptr) == 0 && value &&
            *value)
            label = value;
    }
    blkid_free_probe(probe);
    return label;
}

}  // namespace platform::blockdevice
