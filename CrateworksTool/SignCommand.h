// crateworks xar sign: the signing half of the xar command, kept beside folder sign.
#pragma once

#include <string>
#include <vector>

namespace crateworks {

// `args` are those after "xar sign": IN OUT --key KEY.pem --cert CERT.pem [--cert ...] [--date ISO8601].
int xarSignMain(const std::vector<std::string>& args);

}  // namespace crateworks
