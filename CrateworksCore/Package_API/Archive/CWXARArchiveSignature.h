// A signature of a XAR archive. It keeps what it needs of the codec's signature (type,
// certificates, signed data and signature bytes) when it is made, so it stays usable
// after the archive that yielded it is closed.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CrateworksCore/Package_API/Archive/CWArchiveSignature.h"
#include "CrateworksCore/Package_API/Archive/xar/XarForward.h"

namespace crateworks {

class CWXARArchiveSignature : public CWArchiveSignature {
public:
    // The signature at `signatureIndex` of the open archive; null for an index out of range.
    static std::shared_ptr<CWXARArchiveSignature> initWithXARSignature(const xar::XarReader& xar,
                                                                       size_t signatureIndex);

    // The type as the TOC names it; absent when it names none.
    std::optional<std::string> algorithmType() override;
    // Null unless the type is "RSA"; certificates that do not parse are skipped.
    std::optional<platform::security::CertificateList> certificateRefs() override;
    // The TOC checksum as stored; absent when it cannot be read.
    std::optional<platform::Data> signedDataReturningAlgorithm(std::optional<std::string>* algorithm) override;
    // The signature's heap bytes; absent when they lie outside the heap.
    std::optional<platform::Data> signatureDataReturningAlgorithm(std::optional<std::string>* algorithm) override;
    bool _hasSigningCertificate(const platform::security::CertificateRef& certificate) override;

    const char* className() const override { return "CWXARArchiveSignature"; }

private:
    CWXARArchiveSignature() = default;

    std::string _type;
    std::vector<platform::Data> _certificates;
    std::optional<platform::Data> _signedData;
    std::optional<platform::Data> _signatureData;
};

}  // namespace crateworks
