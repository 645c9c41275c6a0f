// Fuzzes a signed folder's seal: the input's parts are _CodeSignature/CodeResources,
// _CodeSignature/CodeSignature (the detached CMS signature) and the contents of the
// two files the folder holds beside a symbolic link. The folder is read for its
// signing information and checked, with and without its resources.
#include <cstdint>
#include <unistd.h>

#include "FuzzSupport.h"
#include "Platform/CodeSignature.h"

namespace sec = platform::security;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parts = fuzzsupport::parts(data, size, 4);
    parts.resize(4);
    fuzzsupport::Scratch scratch;
    if (!scratch.ok()) return 0;
    if (!scratch.write("Signed/_CodeSignature/CodeResources", parts[0]) ||
        !scratch.write("Signed/_CodeSignature/CodeSignature", parts[1]) ||
        !scratch.write("Signed/file-1", parts[2]) || !scratch.write("Signed/folder/file-2", parts[3]) ||
        symlink("file-1", (scratch / "Signed/link").c_str()) != 0)
        return 0;
    auto code = sec::StaticCode::create(scratch / "Signed");
    if (!code) return 0;
    if (auto information = code->signingInformation(sec::kSigningInformationCertificates))
        for (const auto& certificate : information->certificates) (void)certificate->subject();
    (void)code->signingInformation(sec::kSigningInformationDefault);
    (void)code->checkValidity(sec::kValidityDoNotValidateResources);
    if (code->checkValidity(0) != 0) (void)code->failedResource();
    return 0;
}
