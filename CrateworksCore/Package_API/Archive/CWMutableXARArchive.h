// Writes a new XAR archive: entries are added by path (missing parent folders are made
// with mode 0700), each stored with "gzip" or "none"; closeArchive writes the file out.
// Writing after the close raises "CWMutableXARArchiveException"; reading reopens the
// written file.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/CWXARArchive.h"

namespace crateworks {

// Something that makes a signature when the archive is written; the archive only
// forwards the reserved size to it.
class CWXARSigner {
public:
    virtual ~CWXARSigner() = default;
    virtual void setSignatureSize(int32_t size) = 0;
};

class CWMutableXARArchive : public CWXARArchive {
public:
    // An empty path gives ENOENT with no user info. An existing file at the path is
    // replaced. TOC and file checksums are SHA-1.
    static std::shared_ptr<CWMutableXARArchive> initForWritingToPath(const std::string& path, platform::Error* error);

    bool closeArchive() override;
    bool setData(const platform::Data& data, const std::string& path, bool compressed) override;
    // Records what the file system says of `file` (see XarHandle::addFromPath).
    bool setFile(const std::string& file, const std::string& path, bool compressed) override;
    // Copies every entry of a XAR source below `path`; false for any other kind.
    bool setContentsOfArchive(CWArchive& archive, const std::string& path) override;
    bool addSignatureBySigningWithIdentity(const CWSigningIdentity* identity, const std::string& algorithm,
                                           bool usingTSAIfSupported) override;
    using CWMutableArchive::addSignatureBySigningWithIdentity;
    // Adds the certificate to every signature; true only when there is one and all took it.
    bool addIntermediateCertificate(const platform::Data& certificate) override;
    void setSignatureSize(int32_t size) override;

    // The parent entry of `subpath`, made (with its own parents) when missing: null for
    // the top level, absent with ENOTDIR on failure.
    std::optional<xar::File> _fileStructForParentOfSubpath(const std::string& subpath, platform::Error* error);

    const char* className() const override { return "CWMutableXARArchive"; }

private:
    CWMutableXARArchive() = default;
    void _raiseIfClosed(const char* method) const;

    std::vector<std::shared_ptr<CWXARSigner>> _signers;
    bool _mutable = false;
};

}  // namespace crateworks
