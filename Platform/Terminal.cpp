#include "Platform/Terminal.h"

#include <sys/ioctl.h>

namespace platform::terminal {

std::optional<int> columns(int descriptor) {
    struct winsize size {};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return std::nullopt;
    return int(size.ws_col);
}

}  // namespace platform::terminal
