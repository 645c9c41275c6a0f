// The named exception, and the assertion that reports and aborts.
#pragma once

#include <stdexcept>
#include <string>

namespace platform {

// An exception with a fixed name (such as "CWArchiveException") and a reason.
class Exception : public std::runtime_error {
public:
    Exception(std::string name, std::string reason);
    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }

private:
    std::string name_;
    std::string reason_;
};

// Prints "*** Assertion failure in OPERATION, FILE:LINE: EXPRESSION" followed by the
// description on standard error and the system log, then aborts. `file` may be a
// full path; only its base name is printed.
[[noreturn]] void assertionFailure(const char* operation, const char* file, int line, const char* expression,
                                   const std::string& description);

}  // namespace platform

// Stays active under NDEBUG: these guard installation errors, not only programming ones.
// OPERATION is the operation's full name as the system spells it, e.g.
// "-[FHFindSystemFiles _searchPaths]".
#define FH_ASSERT(operation, condition, description)                                                      \
    do {                                                                                                   \
        if (!(condition))                                                                                  \
            ::platform::assertionFailure((operation), __FILE__, __LINE__, #condition, (description));     \
    } while (0)

// The same, reporting a fixed line number: for assertions whose report names a line
// that callers and documentation rely on.
#define FH_ASSERT_AT_LINE(operation, line, condition, description)                                       \
    do {                                                                                                   \
        if (!(condition)) ::platform::assertionFailure((operation), __FILE__, (line), #condition, (description)); \
    } while (0)
