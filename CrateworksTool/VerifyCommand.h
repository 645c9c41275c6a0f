// What crateworks verify checks, shared with crateworks trust.
#pragma once

#include <optional>
#include <string>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"

namespace crateworks {

// Checks an archive's contents against its own records: a XAR archive's signature over
// its table of contents and every entry's checksums; a folder's code signature and the
// files it seals. Absent when everything verifies; else what failed first, in words.
std::optional<std::string> contentsFailure(CWArchive& archive);

}  // namespace crateworks
