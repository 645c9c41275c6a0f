// Writes the entries of an open XAR archive below an extraction root: nothing is
// created outside it, no link on the way is followed, and a file's checksums are
// checked before it is renamed into place, so a damaged entry leaves nothing under
// its real name.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarReader.h"
#include "Platform/Error.h"
#include "Platform/ExtractionRoot.h"

namespace crateworks::xar {

class XarExtractor {
public:
    XarExtractor(const XarReader& archive, platform::ExtractionRoot& root);

    // Writes one entry at `relativePath` below the root: a directory (open to its owner
    // until finishDirectory gives it its stored mode and time), a file, or a symbolic
    // link; other types are left out with a warning. False with a POSIX error, or the
    // corrupt-file error naming the entry.
    bool extractEntry(File file, const std::string& relativePath, platform::Error* error = nullptr);
    // A directory entry's stored mode and modification time, once everything below it is written.
    bool finishDirectory(File file, const std::string& relativePath, platform::Error* error = nullptr);

    // Writes every entry: directories, then files on two threads, then links, and at
    // last the directories' modes and times, deepest first (an archive that names one
    // path twice is written in TOC order on one thread, the later entry replacing the
    // earlier). Stops at the first entry that fails; `failedPath` receives its path.
    bool extractAll(std::string* failedPath = nullptr, platform::Error* error = nullptr);

    // The entry's permission bits (its "mode" read as octal) and modification date.
    static mode_t modeOf(File file, mode_t fallback);
    static std::optional<platform::Date> modificationDateOf(File file);

private:
    bool _writeFile(File file, const std::string& relativePath, const platform::Data& bytes, platform::Error* error);
    bool _streamFile(File file, const std::string& relativePath, platform::Error* error);
    bool _extractSimple(File file, const std::string& relativePath, platform::Error* error);
    bool _extractFilesInParallel(const std::vector<File>& files, std::string* failedPath, platform::Error* error);

    const XarReader& archive_;
    platform::ExtractionRoot& root_;
    // Reused from entry to entry.
    platform::Data stored_;
    platform::Data bytes_;
};

}  // namespace crateworks::xar
