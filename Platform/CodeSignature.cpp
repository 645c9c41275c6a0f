#include "Platform/CodeSignature.h"

#include <cerrno>
#include <map>

#include "Platform/Digest.h"
#include "Platform/FileSystem.h"
#include "Platform/FileTree.h"
#include "Platform/FileTreeEnumerator.h"
#include "Platform/OpenSSLHandles.h"
#include "Platform/Path.h"
#include "Platform/PropertyList.h"
#include "Platform/SecurityStatus.h"

namespace platform::security {

using detail::crypto;

namespace {
constexpr const char* kResourcesName = "CodeResources";
constexpr const char* kSignatureName = "CodeSignature";

// The sealed items below `directory`: regular files and symbolic links outside
// _CodeSignature, by relative path; other kinds of item are not sealed.
std::map<std::string, std::string> sealedItems(const std::string& directory) {
    std::map<std::string, std::string> items;  // relative path → file type
    FileTreeEnumerator walk(directory);
    while (auto relative = walk.nextObject()) {
        if (*relative == kCodeSignatureDirectory) {
            walk.skipDescendents();
            continue;
        }
        auto attributes = walk.fileAttributes();
        const std::string* type = attributes ? attributes->findString(fs::kFileType) : nullptr;
        if (type && (*type == fs::kFileTypeRegular || *type == fs::kFileTypeSymbolicLink)) items[*relative] = *type;
    }
    return items;
}

// SHA-256 of a file's bytes, or of a link's target text; absent when unreadable.
std::optional<Data> sealOf(const std::string& path) {
    if (auto target = fs::readSymbolicLink(path))
        return digest::compute(digest::Algorithm::SHA256,
                               {reinterpret_cast<const uint8_t*>(target->data()), target->size()});
    Dictionary attributes;
    auto bytes = fs::readRegularFileNoFollow(path, &attributes);
    if (!bytes) return std::nullopt;
    return digest::compute(digest::Algorithm::SHA256, *bytes);
}

// A sealed path must stay below the directory.
bool isSafeRelativePath(const std::string& relative) {
    if (relative.empty() || relative[0] == '/') return false;
    for (const auto& component : path::components(relative))
        if (component == ".." || component == ".") return false;
    return true;
}

detail::CMSPtr readSignature(const Data& der) {
    if (!CryptoLibrary::get()) return nullptr;
    auto bio = detail::memoryBIO(der);
    return detail::CMSPtr(bio ? crypto().d2i_CMS_bio(bio.get(), nullptr) : nullptr);
}

CertificateList signerFirst(CMS_ContentInfo* cms) {
    CertificateList ordered;
    detail::X509StackPtr stored(crypto().CMS_get1_certs(cms));
    STACK_OF(CMS_SignerInfo)* signers = crypto().CMS_get0_SignerInfos(cms);
    CMS_SignerInfo* signer =
        signers && detail::stackCount(signers) > 0 ? detail::stackItem<CMS_SignerInfo>(signers, 0) : nullptr;
    int leaf = -1;
    for (int i = 0; stored && signer && i < detail::stackCount(stored.get()); ++i)
        if (crypto().CMS_SignerInfo_cert_cmp(signer, detail::stackItem<X509>(stored.get(), i)) == 0) {
            leaf = i;
            break;
        }
    if (leaf >= 0) ordered.push_back(Certificate::fromNative(detail::stackItem<X509>(stored.get(), leaf)));
    for (int i = 0; stored && i < detail::stackCount(stored.get()); ++i)
        if (i != leaf) ordered.push_back(Certificate::fromNative(detail::stackItem<X509>(stored.get(), i)));
    return ordered;
}

void setSigningError(Error* error, const std::string& reason) {
    setError(error, kOSStatusErrorDomain, kStatusCodeSignatureInvalid, Dictionary{{kErrorDescriptionKey, reason}});
}
}  // namespace

std::shared_ptr<StaticCode> StaticCode::create(const std::string& path) {
    bool isDirectory = false;
    if (path.empty() || !fs::exists(path, &isDirectory) || !isDirectory) return nullptr;
    return std::shared_ptr<StaticCode>(new StaticCode(path));
}

std::optional<SigningInformation> StaticCode::signingInformation(uint32_t flags) const {
    std::string folder = path::appendComponent(path_, kCodeSignatureDirectory);
    auto resources = plist::readDictionaryFile(path::appendComponent(folder, kResourcesName));
    auto signature = fs::readRegularFile(path::appendComponent(folder, kSignatureName));
    const std::string* identifier = resources ? resources->findString("Identifier") : nullptr;
    if (!identifier || !signature) return std::nullopt;
    auto cms = readSignature(*signature);
    if (!cms) return std::nullopt;
    SigningInformation information{*identifier, {}};
    if (flags & kSigningInformationCertificates) information.certificates = signerFirst(cms.get());
    return information;
}

namespace {

struct BIOChainDeleter {
    void operator()(BIO* bio) const { crypto().BIO_free_all(bio); }
};

// The signed bytes as the verifier reads them: a memory BIO behind a buffering filter.
// Handed a bare memory BIO, the verifier copies it into one of its own, and loses that
// copy when the signature's content cannot be set up (an unknown digest, say).
std::unique_ptr<BIO, BIOChainDeleter> contentBIO(std::span<const uint8_t> bytes) {
    auto memory = detail::memoryBIO(bytes);
    std::unique_ptr<BIO, BIOChainDeleter> buffer(crypto().BIO_new(crypto().BIO_f_buffer()));
    if (!memory || !buffer) return nullptr;
    crypto().BIO_push(buffer.get(), memory.release());
    return buffer;
}

}  // namespace

int64_t StaticCode::checkValidity(uint32_t flags) const {
    failedResource_.reset();
    std::string folder = path::appendComponent(path_, kCodeSignatureDirectory);
    auto resourcesBytes = fs::readRegularFile(path::appendComponent(folder, kResourcesName));
    auto signature = fs::readRegularFile(path::appendComponent(folder, kSignatureName));
    if (!resourcesBytes || !signature) return kStatusCodeUnsigned;
    auto cms = readSignature(*signature);
    auto content = contentBIO(*resourcesBytes);
    detail::StorePtr store(crypto().X509_STORE_new());
    if (!cms || !content || !store ||
        crypto().CMS_verify(cms.get(), nullptr, store.get(), content.get(), nullptr,
                            CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) != 1)
        return kStatusCodeSignatureInvalid;
    if (flags & kValidityDoNotValidateResources) return 0;
    auto resources = plist::readBytes(*resourcesBytes);
    const Dictionary* top = resources ? resources->dictionary() : nullptr;
    const Dictionary* files = top ? top->findDictionary("Files") : nullptr;
    if (!files) return kStatusCodeSignatureInvalid;
    return _checkResources(*files);
}

int64_t StaticCode::_checkResources(const Dictionary& files) const {
    failedResource_.reset();
    for (const auto& [relative, seal] : files) {
        if (!isSafeRelativePath(relative) || !seal.data()) return kStatusCodeSignatureInvalid;
        std::string item = path::appendComponent(path_, relative);
        failedResource_ = relative;
        if (!fs::existsNoFollow(item)) return kStatusResourceMissing;
        auto actual = sealOf(item);
        if (!actual || *actual != *seal.data()) return kStatusResourceModified;
    }
    for (const auto& [relative, type] : sealedItems(path_)) {
        failedResource_ = relative;
        if (!files.contains(relative)) return kStatusResourceAdded;
    }
    failedResource_.reset();
    return 0;
}

bool signDirectory(const std::string& directory, const std::string& identifier, const PrivateKey& key,
                   const CertificateList& certificates, Error* error) {
    if (certificates.empty() || !StaticCode::create(directory)) {
        setSigningError(error, "a directory and a signing certificate are needed to sign");
        return false;
    }
    Dictionary files;
    for (const auto& [relative, type] : sealedItems(directory)) {
        auto seal = sealOf(path::appendComponent(directory, relative));
        if (!seal) {
            if (error) *error = fs::posixError(EIO, path::appendComponent(directory, relative));
            return false;
        }
        files.set(relative, *seal);
    }
    Data resources;
    std::string xml = plist::toXML(Dictionary{{"Identifier", identifier}, {"Files", std::move(files)}});
    resources.assign(xml.begin(), xml.end());

    // The certificates and the key were read by the library: it is loaded.
    detail::X509StackPtr extra = detail::newX509Stack();
    bool stacked = bool(extra);
    for (size_t i = 1; stacked && i < certificates.size(); ++i)
        stacked = detail::pushX509(extra.get(), certificates[i]->native());
    auto content = stacked ? detail::memoryBIO(resources) : nullptr;
    detail::CMSPtr cms(content ? crypto().CMS_sign(certificates[0]->native(), key.native(), extra.get(), content.get(),
                                                   CMS_DETACHED | CMS_BINARY)
                               : nullptr);
    unsigned char* der = nullptr;
    int length = cms ? crypto().i2d_CMS_ContentInfo(cms.get(), &der) : -1;
    if (length <= 0) {
        setSigningError(error, "the key does not sign with the certificate given");
        return false;
    }
    Data signature(der, der + length);
    detail::freeMemory(der);

    std::string folder = path::appendComponent(directory, kCodeSignatureDirectory);
    return fs::createDirectories(folder, 0755, error) &&
           fs::writeFileAtomically(path::appendComponent(folder, kResourcesName), resources, error) &&
           fs::writeFileAtomically(path::appendComponent(folder, kSignatureName), signature, error);
}

}  // namespace platform::security
