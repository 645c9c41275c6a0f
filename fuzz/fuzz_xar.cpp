// Fuzz target for the XAR reader: the bytes become an archive file, which is opened,
// listed, read entry by entry and verified, then extracted below a fresh directory
// (removed with the archive after every input) the way `crateworks xar extract` does,
// and through the archive's own item extraction. Run by hand with clang (see the
// README); the archive tests replay the seed corpus through the same function with g++.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>
#include <unistd.h>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarExtractor.h"
#include "Platform/ExtractionRoot.h"
#include "Platform/File.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string directory = (std::filesystem::temp_directory_path() / "fuzz-xar-XXXXXX").string();
    if (!mkdtemp(directory.data())) return 0;
    std::string path = directory + "/archive.xar";
    bool written = false;
    if (auto file = platform::fs::File::open(
            path, {.access = platform::fs::OpenOptions::Access::Write, .create = true, .exclusive = true}))
        written = file->writeAll({data, size}) && file->close();
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
            auto* reader = archive->_xar();
            if (auto root = reader ? platform::ExtractionRoot::open(directory + "/extracted", true) : nullptr) {
                crateworks::xar::XarExtractor extractor(*reader, *root);
                extractor.extractAll();
            }
            archive->extractItemAtPath("", directory + "/item", nullptr);
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
    return 0;
}
