// A host program built only from the installed packages (headers, pkg-config files and
// libraries): it writes the BOM of a small tree through the package library, reads it
// back, and reports where the installed libraries found the resource bundle and the
// rule data in it, so that the package check can compare all of it with what the
// packaged tools say.
//   host_program SCRATCH_DIR
#include <cstdio>
#include <fstream>
#include <string>

#include "CrateworksCore/Package_API/BOM/CWBOM.h"
#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "FHPathAnalysis/ConfMigrator/FHConfMigrator.h"
#include "Platform/FileSystem.h"
#include "Platform/Framework.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: host_program SCRATCH_DIR\n");
        return 2;
    }
    const std::string scratch = argv[1];
    const std::string tree = scratch + "/tree";
    bool written = false;
    if (platform::fs::createDirectories(tree + "/folder")) {
        std::ofstream file(tree + "/folder/file.txt");
        file << "seven b";
        file.close();
        written = static_cast<bool>(file);
    }
    if (!written) {
        std::fprintf(stderr, "host_program: cannot write %s/folder/file.txt\n", tree.c_str());
        return 1;
    }

    const std::string bomPath = scratch + "/tree.bom";
    auto bom = crateworks::CWMutableBOM::initWithDirectory(tree, bomPath, false, std::nullopt);
    if (!bom || !bom->commitData()) {
        std::fprintf(stderr, "host_program: the BOM of %s was not written\n", tree.c_str());
        return 1;
    }
    auto read = crateworks::CWBOM::initWithBOMPath(bomPath);
    if (!read) {
        std::fprintf(stderr, "host_program: %s does not read back\n", bomPath.c_str());
        return 1;
    }
    std::printf("bom %u %llu\n", read->fileCount(), static_cast<unsigned long long>(read->totalSize()));
    std::printf("bundle %s\n", platform::framework::bundlePath().c_str());
    auto rules = FHConfMigrator::_confMigratorDirectory();
    std::printf("rules %s\n", rules ? rules->c_str() : "-");
    return 0;
}
