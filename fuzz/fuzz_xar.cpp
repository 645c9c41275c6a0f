// Fuzz target for the XAR reader: the bytes become an archive file, which is opened,
// listed, read entry by entry and verified. Run by hand with clang (see the README);
// the archive tests replay the seed corpus through the same function with g++.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "Platform/File.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string path = (std::filesystem::temp_directory_path() / "fuzz-xar-XXXXXX").string();
    int fd = mkstemp(path.data());
    if (fd < 0) return 0;
    platform::fs::File file = platform::fs::File::adopt(fd, path);
    bool written = file.writeAll({data, size}) && file.close();
    if (written) {
        if (auto archive = crateworks::CWXARArchive::initForReadingFromPath(path)) {
            if (auto entries = archive->enumeratorAtPath("")) {
                while (auto entry = entries->nextObject()) {
                    archive->fileAttributesAtPath(*entry);
                    archive->dataForPath(*entry);
                    if (entries->isDirectory()) archive->enumeratorAtPath(*entry);
                }
            }
            archive->verifyReturningError(nullptr);
            archive->archiveSignatures();
            archive->archiveSignatureDate();
            archive->archiveDigest();
        }
    }
    unlink(path.c_str());
    return 0;
}
