// A new bill of materials, built entry by entry or from a directory tree, and written
// to its file by commitData().
//
// Side entries: an item whose extended attributes (and, when asked, whose ACL) would be
// carried by a metadata copy gets a regular-file entry beside it at dir/._name, with the
// item's permissions and owner.
//
// Masking: each mask pattern removes every entry whose BOM path, in its "./" form,
// matches it as an fnmatch wildcard ("*" also crosses "/"), together with all of that
// entry's descendants. The root is never removed.
#pragma once

#include "CrateworksCore/Package_API/BOM/CWBOM.h"

namespace crateworks {

class CWMutableBOM : public CWBOM {
public:
    // A new BOM to be written to `path`, holding only its root directory "."; null when
    // the path's directory does not exist.
    static std::shared_ptr<CWMutableBOM> initForWritingToPath(const std::string& path);
    // A new BOM of the tree under `directory` with all data (checksums included), masked
    // with the patterns when there are any, with side entries where needed. Null when an
    // item cannot be read or a step fails.
    static std::shared_ptr<CWMutableBOM> initWithDirectory(const std::string& directory, const std::string& writingToPath,
                                                           bool includeACLs,
                                                           const std::optional<std::vector<std::string>>& maskPatterns);

    // Adds an entry of the file type (regular file, directory, otherwise type code 0),
    // adding missing parents as directories first. False for an empty path; "." is
    // already there.
    bool addBomPath(const std::string& bomPath, const std::string& fileType);
    // Adds an entry made from the file on disk (all data) at the BOM path, its missing
    // parents first, and a side entry when the file needs one.
    bool addFile(const std::string& file, const std::string& forBomPath, bool includeACLs);
    // Applies owner id, group id and POSIX permissions from the dictionary to the entry.
    // False when there is no such entry.
    bool setAttributes(const platform::Dictionary& attributes, const std::string& ofItemAtPath);
    // Writes the BOM to its file; true on success. A failure leaves what was at the path
    // and says why in `error`.
    bool commitData(platform::Error* error = nullptr);

    // The pattern list for masking; absent for an empty array.
    static std::optional<bom::BOMPatternList> _newBOMPatternList(const std::vector<std::string>& patterns);
    // The side-file path: "dir/name" gives "dir/._name", "name" gives "._name".
    static std::string _quarnDoublePath(std::string_view path);
    bool _addQuarnDoubleForFile(const std::string& file, const std::string& forBOMPath);
    bool _addQuarnDoubleAsNeededForForDirectory(const std::string& directory, bool includeACLs);

private:
    CWMutableBOM() = default;
    bool _ensureParentOf(const std::string& bomPath);
};

}  // namespace crateworks
