// The disk-image tool that checks a downloaded image: a fixed program path, which the
// environment variable FERRYHOLD_DISK_IMAGE_TOOL may replace (tests point it at a
// script of their own).
#pragma once

#include <string>

namespace platform {

inline constexpr const char* kDiskImageToolPath = "/usr/bin/vimgutil";
inline constexpr const char* kDiskImageToolEnvironmentVariable = "FERRYHOLD_DISK_IMAGE_TOOL";

// The program to run: the environment's choice when set and not empty, else the constant.
std::string diskImageToolPath();

}  // namespace platform
