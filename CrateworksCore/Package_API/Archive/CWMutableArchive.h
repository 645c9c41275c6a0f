// The writer interface of package archives, and the factory of writers by type.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "CrateworksCore/Package_API/Archive/CWArchive.h"

namespace crateworks {

// A signing identity of the platform's trust services; opaque here.
struct CWSigningIdentity;

class CWMutableArchive : public CWArchive {
public:
    // "xar": a CWMutableXARArchive; "folder": a CWFolderArchive; any other type: null
    // with no error set.
    static std::shared_ptr<CWMutableArchive> initForWritingToPath(const std::string& path, const std::string& type,
                                                                  platform::Error* error);
    // Abstract: each concrete class has its own; this one raises "CWArchiveException".
    static std::shared_ptr<CWMutableArchive> initForWritingToPath(const std::string& path, platform::Error* error);

    virtual bool setData(const platform::Data& data, const std::string& path, bool compressed);
    // Reads the whole source file and hands it to setData.
    virtual bool setFile(const std::string& file, const std::string& path, bool compressed);
    virtual bool setContentsOfArchive(CWArchive& archive, const std::string& path);

    bool addSignatureBySigningWithIdentity(const CWSigningIdentity* identity, const std::string& algorithm);
    // Signing is not offered by the writers here: false.
    virtual bool addSignatureBySigningWithIdentity(const CWSigningIdentity* identity, const std::string& algorithm,
                                                   bool usingTSAIfSupported);
    // `certificate` is DER. False here.
    virtual bool addIntermediateCertificate(const platform::Data& certificate);
    virtual void setSignatureSize(int32_t size);

    const char* className() const override { return "CWMutableArchive"; }
};

}  // namespace crateworks
