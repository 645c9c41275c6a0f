// An ordinary directory standing in for a package archive: every archive operation is
// answered by the file system below it, and one class both reads and writes.
#pragma once

#include <memory>
#include <string>

#include "CrateworksCore/Package_API/Archive/CWMutableArchive.h"

namespace crateworks {

class CWFolderArchive : public CWMutableArchive {
public:
    // Null unless `path` is an existing directory.
    static std::shared_ptr<CWFolderArchive> initForReadingFromPath(const std::string& path);
    // An existing path is taken as it is (nothing is emptied); a missing one is made
    // with its parents. Null with the file system's error when that fails.
    static std::shared_ptr<CWFolderArchive> initForWritingToPath(const std::string& path, platform::Error* error);

    std::string archivePath() const override { return _archivePath; }
    std::unique_ptr<platform::DirectoryEnumerator> enumeratorAtPath(const std::string& path) override;
    std::optional<platform::Data> dataForPath(const std::string& path) override;
    std::optional<platform::Dictionary> fileAttributesAtPath(const std::string& path) override;
    bool fileExistsAtPath(const std::string& path) override;
    // Copies the item into the directory `toPath` (made when missing), replacing an
    // item of the same name there.
    bool extractItemAtPath(const std::string& path, const std::string& toPath, platform::Error* error) override;
    // An unsigned folder is valid.
    bool verifyReturningError(platform::Error* error) override;
    bool closeArchive() override { return true; }
    // Its code signature as the one element; null when the folder is not signed.
    std::optional<CWArchiveSignatureList> archiveSignatures() override;

    bool setData(const platform::Data& data, const std::string& path, bool compressed) override;
    bool setFile(const std::string& file, const std::string& path, bool compressed) override;
    // Copies every entry of a folder source below `path`; false for any other kind.
    bool setContentsOfArchive(CWArchive& archive, const std::string& path) override;

    const char* className() const override { return "CWFolderArchive"; }

private:
    CWFolderArchive() = default;
    std::string _joined(const std::string& path) const;

    std::string _archivePath;
};

}  // namespace crateworks
