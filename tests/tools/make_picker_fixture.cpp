// make-picker-fixture DIR: builds the disk picker's fixture machine (see
// tests/support/DiskPickerFixture.h) in DIR and prints the environment that points the
// picker at it, one VARIABLE=VALUE a line.
#include <cstdio>
#include <exception>
#include <filesystem>

#include "support/DiskPickerFixture.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make-picker-fixture DIR\n");
        return 2;
    }
    if (std::filesystem::exists(argv[1])) {
        fprintf(stderr, "make-picker-fixture: %s exists already\n", argv[1]);
        return 1;
    }
    try {
        testsupport::DiskPickerFixture fixture(std::filesystem::absolute(argv[1]).string());
        printf("FERRYHOLD_MOUNTINFO=%s\nFERRYHOLD_SYSFS=%s\n", fixture.mountInfo().c_str(), fixture.sysfs().c_str());
    } catch (const std::exception& e) {
        fprintf(stderr, "make-picker-fixture: %s\n", e.what());
        return 1;
    }
    return 0;
}
