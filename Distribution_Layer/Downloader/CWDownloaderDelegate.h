// What a package downloader tells its delegate, on the downloader's thread. Every
// callback has a default that stands for a delegate not implementing it: nothing
// happens, a failed package is not retried, and an authentication challenge goes on
// without a credential.
#pragma once

#include <memory>
#include <optional>

#include "Distribution_Layer/Product/CWPackageReference.h"
#include "Platform/Error.h"
#include "Platform/URLAuthenticationChallenge.h"

namespace crateworks {

class CWDownloader;

class CWDownloaderDelegate {
public:
    virtual ~CWDownloaderDelegate() = default;

    virtual void packageDownloaderDidStart(CWDownloader&) {}
    // A stop was asked for (or the queue ran empty) and no element is active any more.
    virtual void packageDownloaderDidStop(CWDownloader&) {}
    virtual void packageDownloaderDidChangeProgress(CWDownloader&, double /*percentage*/) {}
    // The package passed its check and is in place; `local` names the file there.
    virtual void packageDownloaderDidFinishPackageReference(CWDownloader&,
                                                            const std::shared_ptr<CWPackageReference>& /*reference*/,
                                                            const std::shared_ptr<CWPackageReference>& /*local*/) {}
    // True puts the package back at the front of the queue. `error` is absent when the
    // package's check failed.
    virtual bool packageDownloaderShouldRetryFailedPackageReference(
        CWDownloader&, const std::shared_ptr<CWPackageReference>& /*reference*/,
        const std::optional<platform::Error>& /*previousError*/) {
        return false;
    }
    virtual void packageDownloaderDidFailOnPackageReference(CWDownloader&,
                                                            const std::shared_ptr<CWPackageReference>& /*reference*/,
                                                            const platform::Error& /*error*/) {}
    virtual void packageDownloaderDidDownloadInvalidDataForPackageReference(
        CWDownloader&, const std::shared_ptr<CWPackageReference>& /*reference*/) {}
    virtual void packageDownloaderDidReceiveAuthenticationChallenge(
        CWDownloader&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
        challenge->continueWithoutCredential();
    }
    virtual void packageDownloaderDidCancelAuthenticationChallenge(
        CWDownloader&, const std::shared_ptr<platform::URLAuthenticationChallenge>&) {}
};

}  // namespace crateworks
