// Writes a new XAR archive. Entries are added to a TOC in memory while their data is
// encoded and laid into a scratch heap on worker threads; close() writes header, TOC
// and heap into a new file beside the path and only then puts it in the path's place.
// Until close() succeeds, whatever was at the path stays as it was, and a path that
// holds anything but a regular file is never replaced.
//
// Every entry the writer takes is one the reader accepts: a name that is empty, "." or
// "..", or holds "/", and nesting past kMaxDepth, are refused when added.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/Archive/xar/XarToc.h"
#include "Platform/AtomicFile.h"
#include "Platform/Error.h"
#include "Platform/File.h"
#include "Platform/Value.h"

namespace crateworks::xar {

class HeapWriter;
class XarReader;

class XarWriter {
public:
    // Null with the error when something other than a regular file is at `path`, or
    // when its directory refuses new files.
    static std::unique_ptr<XarWriter> open(const std::string& path, platform::Error* error = nullptr);
    ~XarWriter();
    XarWriter(const XarWriter&) = delete;
    XarWriter& operator=(const XarWriter&) = delete;

    // "toc-cksum" and "file-chksum" ("sha1", "md5", "sha256", "sha512"), "compression"
    // ("gzip" or "none") for entries added afterwards. False for anything else.
    bool setOption(std::string_view name, std::string_view value);
    std::optional<std::string> option(std::string_view name) const;

    const Toc& toc() const { return toc_; }
    File find(const std::string& path) const { return toc_.find(path); }

    // Each add puts a new entry named `name` below `parent` (null: the top level) and
    // answers it; null with the error when it cannot.
    // A directory with permission bits `mode`, owner and group 0 and dates of 1970.
    File addFolder(File parent, std::string_view name, uint32_t mode, platform::Error* error = nullptr);
    // A file holding `bytes`, mode 0644, owned by the running user, dated now.
    File addFromBuffer(File parent, std::string_view name, std::span<const uint8_t> bytes,
                       platform::Error* error = nullptr);
    // What the file system says of the item `itemName` in the open `directory` (type,
    // mode, owner and group ids and names, dates, a link's target, a file's bytes),
    // never following a link. Directories, regular files and symbolic links only;
    // `displayPath` names the item in errors.
    File addFromItem(File parent, std::string_view name, const platform::fs::File& directory,
                     const std::string& itemName, const std::string& displayPath, platform::Error* error = nullptr);
    // The same for the item at `sourcePath`.
    File addFromPath(File parent, std::string_view name, const std::string& sourcePath,
                     platform::Error* error = nullptr);
    // An entry of another archive with its properties and its stored bytes as they are.
    File addFromArchive(File parent, std::string_view name, const XarReader& source, File sourceFile,
                        platform::Error* error = nullptr);

    // Signatures in TOC order. signatureAdd reserves `size` heap bytes for a signature
    // of `type` after the TOC checksum and the signatures before it; when the archive is
    // written, `sign` receives the TOC checksum and must answer exactly `size` bytes, or
    // the write fails. Absent once entry data was added.
    using SignatureMaker = std::function<std::optional<platform::Data>(std::span<const uint8_t> checksum)>;
    const std::vector<Signature>& signatures() const { return toc_.signatures; }
    std::optional<size_t> signatureAdd(std::string type, uint64_t size, SignatureMaker sign);
    bool signatureAddX509Certificate(size_t signatureIndex, platform::Data der);
    // The TOC's "creation-time" text ("YYYY-MM-DDTHH:MM:SS", UTC); now when unset.
    void setCreationTime(std::string text) { creationTime_ = std::move(text); }

    // Waits for the data, writes the archive and puts it at the path. False with the
    // error (the path as it was); the writer is finished either way.
    bool close(platform::Error* error = nullptr);
    // Drops everything written; the path stays as it was.
    void discard();
    const std::string& archivePath() const { return path_; }

private:
    XarWriter(std::string path, platform::fs::AtomicFile output, platform::fs::File heap);
    // `displayPath` names the entry in errors; its path in the archive when empty.
    File _newEntry(File parent, std::string_view name, std::string type, platform::Error* error,
                   const std::string& displayPath = {});
    void _setProperty(File file, std::string name, std::string value);
    HeapWriter& _heapWriter();
    bool _write(platform::Error* error);
    // Where entry data starts: after the TOC checksum and the reserved signatures.
    uint64_t _heapStart() const;

    std::string path_;
    std::optional<platform::fs::AtomicFile> output_;
    platform::fs::File heap_;
    Toc toc_;
    std::vector<std::pair<std::string, std::string>> options_;
    std::unique_ptr<HeapWriter> heapWriter_;
    uint64_t nextID_ = 1;
    std::vector<SignatureMaker> signatureMakers_;
    std::optional<std::string> creationTime_;
};

}  // namespace crateworks::xar
