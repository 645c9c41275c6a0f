// Downloads an "https" URL over the same service as CWURLDownload, always verifying the
// server's certificate: against the system's authorities, or a bundle the host names.
// Not in the default class list; hosts add it with CWDownload::addDownloadClass().
#pragma once

#include <optional>
#include <string>

#include "Distribution_Layer/Downloader/CWURLDownload.h"

namespace crateworks {

inline constexpr const char* kCWSecureURLDownloadResumeType = "CWSecureURLDownload";

class CWSecureURLDownload : public CWURLDownload {
public:
    static CWDownloadClass downloadClass();
    static bool canDownloadURL(const platform::URL& url) { return url.scheme() == "https"; }
    static bool canDownloadWithResumeData(const platform::Data& data);

    static std::shared_ptr<CWSecureURLDownload> initWithURL(const platform::URL& url, CWDownloadDelegate* delegate);
    // Like CWURLDownload's, the delegate argument is not stored.
    static std::shared_ptr<CWSecureURLDownload> initWithResumeData(const platform::Data& data,
                                                                   const std::string& destination,
                                                                   CWDownloadDelegate* delegate);

    // A PEM file of the authorities to trust instead of the system's; absent restores them.
    // Applies to downloads and synchronous loads (CWURLConnection) made afterwards.
    static void setCertificateAuthorityFile(std::optional<std::string> path);
    static std::optional<std::string> certificateAuthorityFile();

protected:
    const char* _resumeType() const override { return kCWSecureURLDownloadResumeType; }

private:
    explicit CWSecureURLDownload(CWDownloadDelegate* delegate) : CWURLDownload(delegate) {}
    static platform::URLTransferOptions _options();
};

}  // namespace crateworks
