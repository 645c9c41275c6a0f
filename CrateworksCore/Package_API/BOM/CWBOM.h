// A bill of materials opened read-only, from a file or from bytes in memory.
//
// Paths handed in are BOM paths in either form: "." names the root entry, and a path
// that does not begin with "./" has it put in front ("usr/bin/ls" and "./usr/bin/ls"
// name the same entry). Paths handed out have the "./" cut: "usr/bin/ls".
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CrateworksCore/Package_API/BOM/BOMStore.h"
#include "Platform/Value.h"

namespace crateworks {

class CWBOMDirectoryEnumerator;

// Attribute key of a symbolic link's recorded destination.
inline constexpr const char* kCWFileSymbolicLinkDestination = "CWFileSymbolicLinkDestination";
// Attribute key of an entry's full 16-bit mode.
inline constexpr const char* kCWStMode = "_st_mode";

class CWBOM : public std::enable_shared_from_this<CWBOM> {
public:
    // Opens the BOM file at `path`: null when it cannot be opened or is not a sound BOM.
    // A nil path throws platform::Exception "CWBOM" / "Attempt to initialize with nil".
    static std::shared_ptr<CWBOM> initWithBOMPath(const std::optional<std::string>& path);
    // Opens BOM bytes held in memory, keeping them for the BOM's lifetime; null when they
    // are not a sound BOM. Nil data throws like a nil path.
    static std::shared_ptr<CWBOM> initWithBOMData(std::optional<platform::Data> data);
    virtual ~CWBOM() = default;

    // The BOM library's handle, for the enumerator and the mutable subclass.
    const std::shared_ptr<bom::BOMStore>& bomHandle() const { return _bomHandle; }

    // The attribute dictionary of the entry; absent when there is no such entry.
    std::optional<platform::Dictionary> attributesOfItemAtPath(const std::string& path) const;
    // A walk over the whole BOM (the root itself is never reported).
    std::shared_ptr<CWBOMDirectoryEnumerator> directoryEnumerator();
    // The path of the entry and of everything below it, in walk order, beginning with the
    // entry itself ("." for the root); absent when there is no such entry.
    std::optional<std::vector<std::string>> subpathsOfDirectoryAtPath(const std::string& path) const;
    // The number of entries, the root included; 0 when no BOM is open.
    uint32_t fileCount() const;
    // The sizes of all entries added up; 0 when no BOM is open.
    uint64_t totalSize() const;

    // The attribute dictionary of an entry: file type, "_st_mode", POSIX permissions
    // (mode & 0xfff), owner and group ids, size, and "CWFileSymbolicLinkDestination" for
    // a link whose target is recorded.
    static platform::Dictionary _attributesOfBOMEntry(const bom::BOMEntry& entry);
    // Applies only owner id, group id and POSIX permissions (the entry's type bits kept),
    // in the dictionary's order; other keys are ignored. Always true.
    static bool _setAttributes(const platform::Dictionary& attributes, bom::BOMEntry& ofBOMEntry);
    // The file-type value for a BOM type code.
    static const char* _fileTypeFromBOMEntryType(uint8_t type);
    // A stored path with its "./" cut; the root "." stays ".". A stored path of another
    // form is a corrupt BOM and stops the program.
    static std::string _stringByRemovingBomPathPrefix(const std::string& path_str);
    // A BOM path in its stored form: "." stays, "./" is put in front unless present.
    static std::string _stringByInsertingBomPathPrefix(std::string_view path);

protected:
    CWBOM() = default;

    std::optional<platform::Data> _bomData;  // the bytes of a BOM opened from memory
    std::shared_ptr<bom::BOMStore> _bomHandle;
};

}  // namespace crateworks
