// make-volume DESCRIPTION DIR: builds the volume that a description file describes
// (see tests/support/VolumeBuilder.h for the format) in DIR, which must not exist yet.
#include <cstdio>
#include <exception>
#include <filesystem>

#include "support/VolumeBuilder.h"

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: make-volume DESCRIPTION DIR\n");
        return 2;
    }
    if (std::filesystem::exists(argv[2])) {
        fprintf(stderr, "make-volume: %s exists already\n", argv[2]);
        return 1;
    }
    try {
        testsupport::VolumeBuilder volume(argv[2]);
        volume.loadFile(argv[1]);
        volume.build();
        fprintf(stderr, "make-volume: built %s with %zu BOM entries\n", argv[2], volume.bomEntryCount());
    } catch (const std::exception& e) {
        fprintf(stderr, "make-volume: %s\n", e.what());
        return 1;
    }
    return 0;
}
