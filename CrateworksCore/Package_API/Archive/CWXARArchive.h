// A package archive read from a XAR file. The file is opened lazily: after
// archiveDigest or closeArchive, the next operation opens it again.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "CrateworksCore/Package_API/Archive/CWMutableArchive.h"
#include "CrateworksCore/Package_API/Archive/xar/XarForward.h"

namespace crateworks {

class CWXARArchive : public CWMutableArchive {
public:
    // Null when the file cannot be opened (a POSIX error) or is not a XAR archive that
    // passes its checks (the general domain's 259, its description saying what is wrong
    // and where); `error` is optional.
    static std::shared_ptr<CWXARArchive> initForReadingFromPath(const std::string& path,
                                                                platform::Error* error = nullptr);
    ~CWXARArchive() override;

    std::string archivePath() const override { return _archivePath; }
    std::unique_ptr<platform::DirectoryEnumerator> enumeratorAtPath(const std::string& path) override;
    std::optional<platform::Data> dataForPath(const std::string& path) override;
    std::optional<platform::Dictionary> fileAttributesAtPath(const std::string& path) override;
    bool verifyReturningError(platform::Error* error) override;
    bool fileExistsAtPath(const std::string& path) override;
    bool closeArchive() override;
    // A directory entry is made open to its owner; _finishDirectory gives it its stored
    // mode and time once everything below it is written.
    bool _extractFile(const std::string& path, const std::string& toPath, platform::Error* error) override;
    bool _finishDirectory(const std::string& path, const std::string& toPath, platform::Error* error) override;

    // The stored TOC checksum as lower-case hex; leaves the archive closed.
    std::optional<std::string> archiveDigest() override;
    // The RSA signatures (an empty list for an unsigned archive); null when the archive
    // cannot be opened.
    std::optional<CWArchiveSignatureList> archiveSignatures() override;
    // The TOC's "creation-time" read with "%FT%T" as UTC.
    std::optional<platform::Date> archiveSignatureDate() override;

    // Entries of an archive with no RSA signature are then read without verification.
    void _setSkipsVerifyIfUnsigned(bool skips) { _skipsVerify = skips; }
    // The open reader, opening the file when it is closed; null when it cannot be (the
    // reason through `error`).
    virtual xar::XarReader* _xar(platform::Error* error = nullptr);
    bool _xarFileIsValid(xar::File file);
    xar::File _fileStructForSubpath(const std::string& subpath, platform::Error* error);
    // The absolute byte offset of the entry's data in the archive file; 0 on failure.
    uint64_t _fileOffsetForPath(const std::string& path, platform::Error* error);

    static std::string _fileAttributeKeyForXARPropertyName(const std::string& name);
    static std::string _fileAttributeKeyForXARFileType(const std::string& type);
    // The attribute value of a TOC property's text; null (no value) when it has none.
    static platform::Value _fileAttributeForXARProperty(const std::string& value, const std::string& fileAttributeKey);

    // Makes the signature objects of archiveSignatures() from the codec's RSA
    // signatures; installed by the signature classes. Without one the list is empty.
    using SignatureWrapper =
        std::function<std::shared_ptr<CWArchiveSignature>(const xar::XarReader& xar, size_t signatureIndex)>;
    static void setSignatureWrapper(SignatureWrapper wrapper);

    const char* className() const override { return "CWXARArchive"; }

protected:
    CWXARArchive() = default;
    // Number of RSA signatures in the open archive.
    size_t _rsaSignatureCount();

    std::string _archivePath;
    std::unique_ptr<xar::XarReader> _xarPtr;
    bool _skipsVerify = false;
};

}  // namespace crateworks
