// Writes a new XAR archive: entries are added by path (missing parent folders are made
// with mode 0700), each stored with "gzip" or "none"; closeArchive writes the file out.
// The new archive is written beside the path and takes its place only when closeArchive
// succeeds: until then, and after any failure, whatever was there is as it was, and
// anything but a regular file there is refused at open rather than replaced.
// Writing after the close raises "CWMutableXARArchiveException"; reading is possible
// once the archive is closed, from the written file.
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
    // An empty path gives ENOENT with no user info. A device, FIFO, socket, directory or
    // symbolic link at the path is refused (EEXIST or EISDIR, naming it). TOC and file
    // checksums are SHA-1.
    static std::shared_ptr<CWMutableXARArchive> initForWritingToPath(const std::string& path, platform::Error* error);
    ~CWMutableXARArchive() override;

    // Writes the archive out and puts it at the path; false when that failed, leaving
    // the path as it was.
    bool closeArchive() override;
    bool closeArchiveReturningError(platform::Error* error);
    bool setData(const platform::Data& data, const std::string& path, bool compressed) override;
    // Records what the file system says of `file` without following a link there:
    // directories, regular files and symbolic links.
    bool setFile(const std::string& file, const std::string& path, bool compressed) override;
    bool setFile(const std::string& file, const std::string& path, bool compressed, platform::Error* error);
    // Every item below `directory`, parents first and names in byte order, below
    // `path` ("" for the top level), walked through directory descriptors so that no
    // path length limits it. Fails, naming the item, at the first one that cannot be
    // archived (unreadable, vanished, not a file, directory or link, nested past the
    // depth a reader accepts); refused before anything is added when the archive's
    // own path lies inside `directory`.
    bool setContentsOfDirectory(const std::string& directory, const std::string& path, bool compressed,
                                platform::Error* error);
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
    // No reader while the archive is being written: the file at the path is not it yet.
    xar::XarReader* _xar(platform::Error* error = nullptr) override;

    const char* className() const override { return "CWMutableXARArchive"; }

private:
    CWMutableXARArchive();
    void _raiseIfClosed(const char* method) const;

    std::vector<std::shared_ptr<CWXARSigner>> _signers;
    bool _mutable = false;
    std::unique_ptr<xar::XarWriter> _writer;
};

}  // namespace crateworks
