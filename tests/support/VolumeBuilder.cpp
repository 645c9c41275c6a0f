#include "support/VolumeBuilder.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <stdexcept>

#include "CrateworksCore/Package_API/BOM/CWMutableBOM.h"
#include "CrateworksCore/Package_API/Receipts/CWMutableReceipt.h"
#include "Platform/Acl.h"
#include "Platform/Bundle.h"
#include "Platform/FileSystem.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "support/VolumeDescriptionParser.h"

namespace testsupport {

namespace fs = platform::fs;
namespace path = platform::path;
namespace stdfs = std::filesystem;
using crateworks::CWMutableBOM;
using crateworks::CWMutableReceipt;
using crateworks::CWReceipt;

namespace {

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error("VolumeBuilder: " + what); }

std::string bomPathOf(const std::string& volumePath) {
    size_t start = volumePath.find_first_not_of('/');
    return start == std::string::npos ? "." : volumePath.substr(start);
}

const char* fileTypeOfEntry(const std::string& type) {
    if (type == "dir") return fs::kFileTypeDirectory;
    if (type == "link") return fs::kFileTypeSymbolicLink;
    return fs::kFileTypeRegular;
}

void writeFilled(const std::string& file, uint64_t size) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    uint64_t state = 0x9e3779b97f4a7c15ull ^ size;
    std::vector<char> chunk(65536);
    for (uint64_t left = size; left > 0;) {
        size_t n = size_t(std::min<uint64_t>(left, chunk.size()));
        for (size_t i = 0; i < n; ++i) {
            state ^= state << 13, state ^= state >> 7, state ^= state << 17;
            chunk[i] = char(state);
        }
        out.write(chunk.data(), std::streamsize(n));
        left -= n;
    }
    if (!out) fail("cannot write " + file);
}

void writeContents(const std::string& file, const VolumeItem& item) {
    if (item.options.text) {
        std::ofstream out(file, std::ios::binary | std::ios::trunc);
        out << *item.options.text;
        if (!out) fail("cannot write " + file);
    } else if (item.options.fill) {
        writeFilled(file, item.size);
    } else {
        std::ofstream(file, std::ios::binary | std::ios::trunc).close();
        std::error_code ec;
        stdfs::resize_file(file, item.size, ec);
        if (ec) fail("cannot size " + file + ": " + ec.message());
    }
}

void applyOptions(const std::string& file, const VolumeItem& item) {
    std::error_code ec;
    if (item.kind != VolumeItem::Kind::Link) {
        mode_t mode = item.options.mode.value_or(item.kind == VolumeItem::Kind::File ? 0644 : 0755);
        stdfs::permissions(file, stdfs::perms(mode & 07777), stdfs::perm_options::replace, ec);
        if (ec) fail("cannot set the mode of " + file + ": " + ec.message());
    }
    if (item.options.owner || item.options.group) {
        platform::Error error;
        if (!fs::setOwner(file, item.options.owner ? *item.options.owner : uid_t(-1),
                          item.options.group ? *item.options.group : gid_t(-1), &error))
            fail(error.description());
    }
    if (item.options.acl) {
        platform::Error error;
        if (!platform::acl::setACLText(file, *item.options.acl, &error)) fail(error.description());
    }
}

void writeBytes(const std::string& file, std::span<const uint8_t> bytes) {
    platform::Error error;
    if (!fs::writeFileAtomically(file, bytes, &error)) fail(error.description());
}

void writeText(const std::string& file, std::string_view text) {
    writeBytes(file, {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

}  // namespace

// MARK: - Describing

PackageBuilder& PackageBuilder::version(std::optional<std::string> version) {
    package_.version = std::move(version);
    return *this;
}
PackageBuilder& PackageBuilder::groups(std::vector<std::string> groups) {
    package_.groups = std::move(groups);
    return *this;
}
PackageBuilder& PackageBuilder::installDate(platform::Date date) {
    package_.installDate = date;
    return *this;
}
PackageBuilder& PackageBuilder::packageFileName(std::string name) {
    package_.packageFileName = std::move(name);
    return *this;
}
PackageBuilder& PackageBuilder::location(PackageDescription::Location location) {
    package_.location = location;
    return *this;
}
PackageBuilder& PackageBuilder::propertyList(PackageDescription::PropertyListForm form) {
    package_.propertyList = form;
    return *this;
}
PackageBuilder& PackageBuilder::damagedBOM() {
    package_.damagedBOM = true;
    return *this;
}
PackageBuilder& PackageBuilder::checksums() {
    package_.checksums = true;
    return *this;
}
PackageBuilder& PackageBuilder::acls() {
    package_.acls = true;
    return *this;
}
PackageBuilder& PackageBuilder::layout(PackageDescription::BundleLayout layout) {
    package_.layout = layout;
    return *this;
}
PackageBuilder& PackageBuilder::withoutInfoDictionary() {
    package_.infoDictionary = false;
    return *this;
}
PackageBuilder& PackageBuilder::missingBOM() {
    package_.missingBOM = true;
    return *this;
}
PackageBuilder& PackageBuilder::directory(std::string path, ItemOptions options) {
    package_.items.push_back({VolumeItem::Kind::Directory, std::move(path), 0, {}, "dir", std::move(options)});
    return *this;
}
PackageBuilder& PackageBuilder::file(std::string path, uint64_t size, ItemOptions options) {
    package_.items.push_back({VolumeItem::Kind::File, std::move(path), size, {}, "file", std::move(options)});
    return *this;
}
PackageBuilder& PackageBuilder::symlink(std::string path, std::string target, ItemOptions options) {
    package_.items.push_back(
        {VolumeItem::Kind::Link, std::move(path), 0, std::move(target), "link", std::move(options)});
    return *this;
}
PackageBuilder& PackageBuilder::entry(std::string path, std::string type, ItemOptions options) {
    if (type != "file" && type != "dir" && type != "link") fail("unknown entry type " + type);
    package_.items.push_back({VolumeItem::Kind::Entry, std::move(path), 0, {}, std::move(type), std::move(options)});
    return *this;
}
PackageBuilder& PackageBuilder::generate(size_t count, std::string under, size_t fanout) {
    package_.generated.push_back({count, std::move(under), fanout == 0 ? 1 : fanout});
    return *this;
}

VolumeBuilder::VolumeBuilder(std::string root) : root_(std::move(root)) {}

VolumeBuilder& VolumeBuilder::systemVersion(std::string productVersion) {
    productVersion_ = std::move(productVersion);
    return *this;
}
VolumeBuilder& VolumeBuilder::directory(std::string path, ItemOptions options) {
    items_.push_back({VolumeItem::Kind::Directory, std::move(path), 0, {}, "dir", std::move(options)});
    return *this;
}
VolumeBuilder& VolumeBuilder::file(std::string path, uint64_t size, ItemOptions options) {
    items_.push_back({VolumeItem::Kind::File, std::move(path), size, {}, "file", std::move(options)});
    return *this;
}
VolumeBuilder& VolumeBuilder::symlink(std::string path, std::string target, ItemOptions options) {
    items_.push_back({VolumeItem::Kind::Link, std::move(path), 0, std::move(target), "link", std::move(options)});
    return *this;
}
VolumeBuilder& VolumeBuilder::user(std::string name, uid_t uid, gid_t gid) {
    users_.push_back({std::move(name), uid, gid});
    return *this;
}

PackageBuilder VolumeBuilder::package(std::string identifier) {
    auto& package = packages_.emplace_back();
    package.identifier = std::move(identifier);
    return PackageBuilder(*this, package);
}

PackageBuilder VolumeBuilder::bundle(std::string name, std::optional<std::string> identifier,
                                     std::optional<std::string> version) {
    auto& package = packages_.emplace_back();
    package.identifier = std::move(name);
    package.bundle = true;
    package.bundleIdentifier = std::move(identifier);
    package.version = std::move(version);
    package.location = PackageDescription::Location::Library;
    return PackageBuilder(*this, package);
}

VolumeBuilder& VolumeBuilder::load(const std::string& text, const std::string& origin) {
    parseVolumeDescription(*this, text, origin);
    return *this;
}

VolumeBuilder& VolumeBuilder::loadFile(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) fail("cannot read " + file);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return load(text, file);
}

std::string VolumeBuilder::pathOf(const std::string& volumePath) const {
    return path::appendComponent(root_, volumePath);
}

std::string VolumeBuilder::receiptsDirectory(const PackageDescription& package) const {
    switch (package.location) {
    case PackageDescription::Location::Secure: return pathOf(CWReceipt::kSecureReceiptsDirectory);
    case PackageDescription::Location::Library: return pathOf(CWReceipt::kLibraryReceiptsDirectory);
    case PackageDescription::Location::LibraryBOMs: return pathOf(CWReceipt::kLibraryReceiptsBOMsDirectory);
    }
    return {};
}

// MARK: - Building

void VolumeBuilder::build() {
    if (!fs::createDirectories(root_)) fail("cannot create " + root_);
    scratch_ = pathOf(".volumebuilder");
    if (!fs::createDirectories(scratch_)) fail("cannot create " + scratch_);
    for (const auto& item : items_) makeItem(item);
    makeSystemVersion();
    for (const auto& user : users_) makeUser(user.name, user.uid, user.gid);
    for (const auto& package : packages_) makePackage(package);
    std::error_code ec;
    stdfs::remove_all(scratch_, ec);
}

void VolumeBuilder::makeParents(const std::string& absolutePath) {
    std::string parent = path::deletingLastComponent(absolutePath);
    if (!fs::createDirectories(parent)) fail("cannot create " + parent);
}

void VolumeBuilder::makeItem(const VolumeItem& item) {
    std::string file = pathOf(item.path);
    makeParents(file);
    std::error_code ec;
    switch (item.kind) {
    case VolumeItem::Kind::Directory:
        if (!fs::createDirectories(file)) fail("cannot create " + file);
        break;
    case VolumeItem::Kind::File: writeContents(file, item); break;
    case VolumeItem::Kind::Link:
        stdfs::remove(file, ec);
        stdfs::create_symlink(item.target, file, ec);
        if (ec) fail("cannot link " + file + ": " + ec.message());
        break;
    case VolumeItem::Kind::Entry: return;
    }
    applyOptions(file, item);
}

void VolumeBuilder::makeSystemVersion() {
    if (!productVersion_) return;
    std::string file = pathOf("System/Library/CoreServices/SystemVersion.plist");
    makeParents(file);
    platform::Dictionary info{{"ProductVersion", *productVersion_}};
    if (!platform::plist::writeXMLFile(info, file)) fail("cannot write " + file);
}

void VolumeBuilder::makeUser(const std::string& name, uid_t uid, gid_t gid) {
    std::string home = pathOf("Users/" + name);
    for (const char* folder : {"Desktop", "Documents", "Library/Preferences"}) {
        std::string dir = path::appendComponent(home, folder);
        if (!fs::createDirectories(dir)) fail("cannot create " + dir);
    }
    for (const char* owned : {"", "Desktop", "Documents", "Library", "Library/Preferences"})
        if (!fs::setOwner(path::appendComponent(home, owned), uid, gid)) fail("cannot give " + home + " away");
}

void VolumeBuilder::makePackage(const PackageDescription& package) {
    for (const auto& item : package.items) makeItem(item);
    platform::Data bom = makeBOM(package);
    if (package.bundle)
        writeBundleReceipt(package, bom);
    else
        writeBOMReceipt(package, bom);
}

platform::Data VolumeBuilder::makeBOM(const PackageDescription& package) {
    std::string file = path::appendComponent(scratch_, "receipt.bom");
    auto bom = CWMutableBOM::initForWritingToPath(file);
    if (!bom) fail("cannot start a BOM for " + package.identifier);
    auto require = [&](bool ok, const std::string& what) {
        if (!ok) fail("cannot add " + what + " to the BOM of " + package.identifier);
    };
    for (const auto& item : package.items) {
        std::string bomPath = bomPathOf(item.path);
        if (item.kind != VolumeItem::Kind::Entry) {
            require(bom->addFile(pathOf(item.path), bomPath, false), bomPath);
        } else {
            require(bom->addBomPath(bomPath, fileTypeOfEntry(item.entryType)), bomPath);
            platform::Dictionary attributes;
            if (item.options.owner) attributes.set(fs::kFileOwnerAccountID, uint64_t(*item.options.owner));
            if (item.options.group) attributes.set(fs::kFileGroupOwnerAccountID, uint64_t(*item.options.group));
            if (item.options.mode) attributes.set(fs::kFilePosixPermissions, uint64_t(*item.options.mode));
            if (!attributes.empty()) require(bom->setAttributes(attributes, bomPath), bomPath);
        }
    }
    for (const auto& generated : package.generated) {
        std::string under = bomPathOf(generated.under);
        require(bom->addBomPath(under, fs::kFileTypeDirectory), under);
        std::string folder;
        for (size_t i = 0; i < generated.count; ++i) {
            if (i % generated.fanout == 0) {
                folder = fmt::format("{}/d{:05}", under, i / generated.fanout);
                require(bom->addBomPath(folder, fs::kFileTypeDirectory), folder);
            }
            std::string entry = fmt::format("{}/f{:05}", folder, i % generated.fanout);
            require(bom->addBomPath(entry, fs::kFileTypeRegular), entry);
        }
    }
    bomEntries_ += bom->fileCount() - 1;
    if (!bom->commitData()) fail("cannot commit the BOM of " + package.identifier);
    auto bytes = fs::readFile(file);
    if (!bytes) fail("cannot read back the BOM of " + package.identifier);
    fs::removeItem(file);
    return std::move(*bytes);
}

void VolumeBuilder::writeBOMReceipt(const PackageDescription& package, const platform::Data& bom) {
    using Form = PackageDescription::PropertyListForm;
    auto receipt = CWMutableReceipt::initWithPackageIdentifier(package.identifier, package.version, bom);
    receipt->_setPackageGroups(package.groups);
    if (package.installDate) receipt->_setInstallDate(*package.installDate);
    if (package.packageFileName) receipt->_setPackageName(*package.packageFileName);
    for (const auto& item : package.items) {
        if (item.kind == VolumeItem::Kind::Entry) continue;
        if (package.checksums && item.kind == VolumeItem::Kind::File)
            receipt->_updateSHA1ChecksumOfItemAtPath(bomPathOf(item.path), pathOf(item.path));
        if (package.acls) receipt->_updateACLsOfItemAtPath(bomPathOf(item.path), pathOf(item.path));
    }
    std::string directory = receiptsDirectory(package);
    platform::Error error;
    if (!receipt->writeToDirectory(directory, &error)) fail(error.description());

    std::string plistPath = path::appendComponent(directory, package.identifier + ".plist");
    if (package.propertyList == Form::Binary) {
        auto dictionary = platform::plist::readDictionaryFile(plistPath);
        if (!dictionary) fail("no property list to convert at " + plistPath);
        writeBytes(plistPath, platform::plist::toBinary(*dictionary));
    } else if (package.propertyList == Form::Missing) {
        fs::removeItem(plistPath);
    } else if (package.propertyList == Form::Damaged) {
        writeText(plistPath, "<?xml version=\"1.0\"?><plist><dict><key>PackageIdentifier</key><str");
    }
    if (package.damagedBOM)
        writeText(path::appendComponent(directory, package.identifier + ".bom"), "BOMStore\x01 not a bill");
}

void VolumeBuilder::writeBundleReceipt(const PackageDescription& package, const platform::Data& bom) {
    using Layout = PackageDescription::BundleLayout;
    std::string bundle = path::appendComponent(receiptsDirectory(package), package.identifier);
    std::string infoFolder = package.layout == Layout::Contents    ? path::appendComponent(bundle, "Contents")
                             : package.layout == Layout::Resources ? path::appendComponent(bundle, "Resources")
                                                                   : bundle;
    // Archive.bom sits in the parent of the resources folder: Contents/, the bundle, or beside the bundle.
    std::string bomFolder = package.layout == Layout::Contents    ? infoFolder
                            : package.layout == Layout::Resources ? bundle
                                                                  : path::deletingLastComponent(bundle);
    if (!fs::createDirectories(infoFolder)) fail("cannot create " + infoFolder);
    platform::Dictionary info;
    if (package.bundleIdentifier) info.set(platform::Bundle::kIdentifierKey, *package.bundleIdentifier);
    if (package.version) info.set(platform::Bundle::kShortVersionStringKey, *package.version);
    if (package.infoDictionary && !platform::plist::writeXMLFile(info, path::appendComponent(infoFolder, "Info.plist")))
        fail("cannot write the information dictionary of " + bundle);
    if (package.missingBOM) return;
    std::string bomFile = path::appendComponent(bomFolder, "Archive.bom");
    if (package.damagedBOM)
        writeText(bomFile, "not a bill of materials");
    else
        writeBytes(bomFile, bom);
}

}  // namespace testsupport
