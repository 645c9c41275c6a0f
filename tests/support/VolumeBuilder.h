// VolumeBuilder: makes a volume for a test in a directory: folders, files, links,
// SystemVersion.plist, user folders, and installed packages with their receipts and
// BOM files (written through CWMutableBOM and CWMutableReceipt).
//
// A volume is described either with builder calls:
//
//     VolumeBuilder volume(dir.path());
//     volume.systemVersion("10.6.8").user("alice").file("/etc/motd", 120, {.text = "hello\n"});
//     volume.package("com.quarn.pkg.BSD").version("10.6.0").groups({"com.quarn.FindSystemFiles.pkg-group"})
//           .directory("/usr/bin").file("/usr/bin/ls", 34000, {.mode = 0755}).generate(5000, "/usr/share/man");
//     volume.build();
//
// or with the same description in a small text format (VolumeBuilder::load / loadFile):
//
//     # Comments start with '#'. One item per line: a keyword, its arguments, then key=value
//     # options. Values with blanks are written in double quotes, with \n \t \" \\ escapes
//     # inside: text="two words\n".
//     system 10.6.8                       System/Library/CoreServices/SystemVersion.plist
//     dir /Library/Caches mode=0755 owner=0 group=0
//     file /etc/motd size=120             sparse file of 120 bytes
//     file /etc/hosts text="127.0.0.1 localhost"   real content
//     file /var/log/big size=4096 fill    real content of pseudo-random bytes
//     link /usr/bin/sh bash               symbolic link /usr/bin/sh -> bash
//     user alice uid=501 gid=20           Users/alice with Desktop, Documents, Library/Preferences
//     package com.quarn.pkg.BSD version=10.6.0 groups=com.quarn.a,com.quarn.b date=2009-08-28T10:00:00Z
//         dir /usr/bin                    indented lines belong to the package above them:
//         file /usr/bin/ls size=34000 mode=0755      dir, file and link are made on disk and listed in its BOM;
//         entry /usr/lib/gone type=file mode=0644    entry is listed in the BOM only (type file, dir or link);
//         generate 5000 /usr/share/man fanout=100    generate lists COUNT files in the BOM only, FANOUT per
//                                                    folder: /usr/share/man/d00000/f00000 ... d00049/f00099.
//     bundle OldStyle.pkg identifier=com.quarn.old version=1.0 layout=contents
//         file /Applications/Old.app/Contents/Info.plist size=10
//
// Package options: version=V (default 1.0) or version=none (a receipt without a version
// gets no property list), groups=A,B, date=ISO 8601 install date (default: when built), name=FILE.pkg ("PackageFileName"),
// in=secure|library|boms (private/var/db/receipts, the default; Library/Receipts;
// Library/Receipts/boms), plist=xml|binary|missing|damaged, bom=damaged, checksums (record
// the SHA-1 of every real file), acls (record the ACL of every installed item).
// Bundle options: identifier=ID (left out of the information dictionary when absent),
// version=V, layout=contents|resources|flat, info=none (the layout's folder without an
// Info.plist), bom=missing|damaged. Bundle receipts are written to Library/Receipts.
// Item options: mode=OCTAL, owner=UID, group=GID, size=N, text=CONTENT, fill, acl=TEXT.
//
// Paths are volume-relative ("/usr/bin/ls"); parents that were not described are made as
// folders with mode 0755. Files are sparse unless they carry text or fill. Errors in a
// description or on disk throw std::runtime_error naming the line or path.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "Platform/Value.h"

namespace testsupport {

struct ItemOptions {
    std::optional<mode_t> mode{};       // default 0755 for folders and links, 0644 for files
    std::optional<uid_t> owner{};       // default: left as created (root)
    std::optional<gid_t> group{};
    std::optional<std::string> text{};  // real content of a file (its size then follows the text)
    bool fill = false;                  // real content of pseudo-random bytes instead of a sparse file
    std::optional<std::string> acl{};   // access ACL in text form
};

struct VolumeItem {
    enum class Kind { Directory, File, Link, Entry };
    Kind kind = Kind::File;
    std::string path;  // volume-relative
    uint64_t size = 0;
    std::string target;                  // symbolic-link destination
    std::string entryType = "file";      // for Kind::Entry: "file", "dir" or "link"
    ItemOptions options;
};

struct GeneratedEntries {
    size_t count = 0;   // file entries; their folders come in addition
    std::string under;  // volume-relative folder that holds them
    size_t fanout = 100;  // files per generated folder
};

struct PackageDescription {
    enum class Location { Secure, Library, LibraryBOMs };
    enum class PropertyListForm { XML, Binary, Missing, Damaged };
    enum class BundleLayout { Contents, Resources, Flat };

    std::string identifier;                       // the bundle's directory name for a bundle receipt
    std::optional<std::string> version = "1.0";
    std::vector<std::string> groups;
    std::optional<platform::Date> installDate;
    std::optional<std::string> packageFileName;
    Location location = Location::Secure;
    PropertyListForm propertyList = PropertyListForm::XML;
    bool damagedBOM = false;
    bool checksums = false;
    bool acls = false;
    std::vector<VolumeItem> items;
    std::vector<GeneratedEntries> generated;

    // Old-style bundle receipt (Library/Receipts/{identifier}).
    bool bundle = false;
    std::optional<std::string> bundleIdentifier;
    BundleLayout layout = BundleLayout::Contents;
    bool infoDictionary = true;  // false: the layout's folder is made, no Info.plist in it
    bool missingBOM = false;
};

class VolumeBuilder;

// Fluent additions to one package of a VolumeBuilder.
class PackageBuilder {
public:
    PackageBuilder(VolumeBuilder& volume, PackageDescription& package) : volume_(volume), package_(package) {}

    PackageBuilder& version(std::optional<std::string> version);
    PackageBuilder& groups(std::vector<std::string> groups);
    PackageBuilder& installDate(platform::Date date);
    PackageBuilder& packageFileName(std::string name);
    PackageBuilder& location(PackageDescription::Location location);
    PackageBuilder& propertyList(PackageDescription::PropertyListForm form);
    PackageBuilder& damagedBOM();
    PackageBuilder& checksums();
    PackageBuilder& acls();
    // Bundle receipts only: where the information dictionary lives, and no Archive.bom at all.
    PackageBuilder& layout(PackageDescription::BundleLayout layout);
    PackageBuilder& withoutInfoDictionary();
    PackageBuilder& missingBOM();
    PackageBuilder& directory(std::string path, ItemOptions options = {});
    PackageBuilder& file(std::string path, uint64_t size, ItemOptions options = {});
    PackageBuilder& symlink(std::string path, std::string target, ItemOptions options = {});
    // Listed in the BOM only: type "file", "dir" or "link".
    PackageBuilder& entry(std::string path, std::string type = "file", ItemOptions options = {});
    PackageBuilder& generate(size_t count, std::string under, size_t fanout = 100);

    PackageDescription& description() { return package_; }
    VolumeBuilder& volume() { return volume_; }

private:
    VolumeBuilder& volume_;
    PackageDescription& package_;
};

class VolumeBuilder {
public:
    // The volume's root directory; created by build() when missing.
    explicit VolumeBuilder(std::string root);

    VolumeBuilder& systemVersion(std::string productVersion);
    VolumeBuilder& directory(std::string path, ItemOptions options = {});
    VolumeBuilder& file(std::string path, uint64_t size, ItemOptions options = {});
    VolumeBuilder& symlink(std::string path, std::string target, ItemOptions options = {});
    VolumeBuilder& user(std::string name, uid_t uid = 501, gid_t gid = 20);
    // A package with a BOM receipt (private/var/db/receipts unless told otherwise).
    PackageBuilder package(std::string identifier);
    // An old-style bundle receipt Library/Receipts/{name}.
    PackageBuilder bundle(std::string name, std::optional<std::string> identifier = std::nullopt,
                          std::optional<std::string> version = "1.0");

    // Adds the items of a description in the text format above; `origin` names it in errors.
    VolumeBuilder& load(const std::string& text, const std::string& origin = "description");
    VolumeBuilder& loadFile(const std::string& path);

    // Makes everything described so far on disk. Call once.
    void build();

    const std::string& root() const { return root_; }
    // The root joined with a volume-relative path.
    std::string pathOf(const std::string& volumePath) const;
    // Where build() puts the receipts of a package description.
    std::string receiptsDirectory(const PackageDescription& package) const;
    // The entries of all BOMs that build() wrote, their roots left out.
    size_t bomEntryCount() const { return bomEntries_; }

private:
    friend class PackageBuilder;
    void makeItem(const VolumeItem& item);
    void makeParents(const std::string& absolutePath);
    void makeUser(const std::string& name, uid_t uid, gid_t gid);
    void makeSystemVersion();
    void makePackage(const PackageDescription& package);
    platform::Data makeBOM(const PackageDescription& package);
    void writeBOMReceipt(const PackageDescription& package, const platform::Data& bom);
    void writeBundleReceipt(const PackageDescription& package, const platform::Data& bom);

    struct User {
        std::string name;
        uid_t uid;
        gid_t gid;
    };

    std::string root_;
    std::optional<std::string> productVersion_;
    std::vector<VolumeItem> items_;
    std::vector<User> users_;
    std::deque<PackageDescription> packages_;
    size_t bomEntries_ = 0;
    std::string scratch_;
};

}  // namespace testsupport
