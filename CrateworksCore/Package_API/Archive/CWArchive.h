// A package archive: a read-only (or write-once) container of files addressed by
// relative paths. Callers open one by path without knowing its kind (a XAR file or a
// directory standing in for one), enumerate it, read entries and their attributes,
// extract them, verify them and ask for its signatures.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/DirectoryEnumerator.h"
#include "Platform/Error.h"
#include "Platform/Value.h"

namespace crateworks {

class CWArchiveSignature;
using CWArchiveSignatureList = std::vector<std::shared_ptr<CWArchiveSignature>>;

class CWArchive {
public:
    using ArchiveClass = std::function<std::shared_ptr<CWArchive>(const std::string& path)>;

    virtual ~CWArchive() = default;

    // The path is standardised, then each of _allArchiveClasses() is asked in turn to
    // open it; the first that does wins. Null when none does.
    static std::shared_ptr<CWArchive> archiveWithPath(const std::string& path);
    // CWXARArchive, then CWFolderArchive.
    static std::vector<ArchiveClass> _allArchiveClasses();
    // Abstract: each concrete class has its own; this one raises "CWArchiveException".
    static std::shared_ptr<CWArchive> initForReadingFromPath(const std::string& path);

    virtual std::string archivePath() const;
    // Paths below `path`, relative to it; null when `path` is not in the archive.
    virtual std::unique_ptr<platform::DirectoryEnumerator> enumeratorAtPath(const std::string& path);
    virtual std::optional<platform::Data> dataForPath(const std::string& path);
    virtual std::optional<platform::Dictionary> fileAttributesAtPath(const std::string& path);
    virtual bool verifyReturningError(platform::Error* error);
    virtual bool closeArchive();

    // "ClassName <archive path>".
    virtual std::string description() const;
    virtual bool fileExistsAtPath(const std::string& path);
    // A directory item: every entry directly below it, recursively, to the same name
    // below `toPath`; anything else through _extractFile. False at the first failure.
    virtual bool extractItemAtPath(const std::string& path, const std::string& toPath, platform::Error* error);
    virtual bool _extractFile(const std::string& path, const std::string& toPath, platform::Error* error);
    // Called for a directory below the extracted item once everything below it is
    // written; the archive kinds that store directory modes and times apply them here.
    virtual bool _finishDirectory(const std::string& path, const std::string& toPath, platform::Error* error);

    // Null here; the archive kinds that have them answer.
    virtual std::optional<std::string> archiveDigest();
    virtual std::optional<CWArchiveSignatureList> archiveSignatures();
    virtual std::optional<platform::Date> archiveSignatureDate();

    virtual const char* className() const { return "CWArchive"; }

protected:
    CWArchive() = default;
    // Raises "CWArchiveException" naming `method` ("-[CWArchive archivePath]").
    [[noreturn]] static void _raiseAbstract(const char* method);
};

}  // namespace crateworks
