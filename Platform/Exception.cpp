#include "Platform/Exception.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>

#include "Platform/Log.h"

namespace platform {

Exception::Exception(std::string name, std::string reason)
    : std::runtime_error(name + ": " + reason), name_(std::move(name)), reason_(std::move(reason)) {}

void assertionFailure(const char* operation, const char* file, int line, const char* expression,
                      const std::string& description) {
    const char* slash = std::strrchr(file, '/');
    std::string base = slash ? slash + 1 : file;
    std::string report =
        fmt::format("*** Assertion failure in {}, {}:{}: {} ({})", operation, base, line, expression, description);
    // Straight to standard error: a replaced console sink must not swallow the last words.
    fprintf(stderr, "%s\n", report.c_str());
    fflush(stderr);
    systemLog(kInstallerFacility | kLogError, report);
    std::abort();
}

}  // namespace platform
