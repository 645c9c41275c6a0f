#include "Platform/MakerRootCertificate.h"

#include <cstdlib>
#include <mutex>

#include "Platform/FileSystem.h"

namespace platform::security {

namespace detail {
// Generated at build time from resources/Ferryhold.framework/Resources/MakerRootCertificate.cer.
extern const unsigned char kMakerRootCertificate[];
extern const size_t kMakerRootCertificateSize;
}  // namespace detail

namespace {
std::mutex overrideMutex;
std::optional<Data> overrideBytes;
}  // namespace

Data builtInMakerRootCertificateData() {
    return Data(detail::kMakerRootCertificate, detail::kMakerRootCertificate + detail::kMakerRootCertificateSize);
}

Data makerRootCertificateData() {
    {
        std::lock_guard lock(overrideMutex);
        if (overrideBytes) return *overrideBytes;
    }
    if (const char* path = getenv("FERRYHOLD_MAKER_ROOT"); path && *path) return fs::readFile(path).value_or(Data());
    return builtInMakerRootCertificateData();
}

void setMakerRootCertificateOverride(std::optional<Data> der) {
    std::lock_guard lock(overrideMutex);
    overrideBytes = std::move(der);
}

}  // namespace platform::security
