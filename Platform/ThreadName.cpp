#include "Platform/ThreadName.h"

#include <pthread.h>

namespace platform::thread {

namespace {
thread_local std::string fullName;
}

void setCurrentName(const std::string& name) {
    fullName = name;
    std::string shortName = name.substr(name.rfind('.') == std::string::npos ? 0 : name.rfind('.') + 1);
    pthread_setname_np(pthread_self(), shortName.substr(0, 15).c_str());
}

std::string currentName() { return fullName; }

}  // namespace platform::thread
