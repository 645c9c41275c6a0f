// crateworks xar sign: the signing half of the xar command, kept beside folder sign.
#pragma once

#include "CommandLine/Parser.h"

namespace crateworks {

// Adds "sign IN OUT --key KEY.pem --cert CERT.pem [--cert ...] [--date ISO8601]" to `xar`.
void addXarSignCommand(CLI::App& xar);

}  // namespace crateworks
