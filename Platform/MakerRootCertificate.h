// The maker's root certificate "built into the program": the DER file
// Resources/MakerRootCertificate.cer of the resource bundle, compiled into the library
// when it is built (a deployment puts its real root there before building).
#pragma once

#include <optional>

#include "Platform/Value.h"

namespace platform::security {

// In this order: the process-wide override, the DER file named by FERRYHOLD_MAKER_ROOT,
// the built-in bytes. The file is read on every call; an unreadable one gives no bytes.
Data makerRootCertificateData();
// Replaces the root for this process (tests bring their own); nullopt restores it.
void setMakerRootCertificateOverride(std::optional<Data> der);

// The bytes compiled in.
Data builtInMakerRootCertificateData();

}  // namespace platform::security
