// Downloads an "http" URL through the platform's URL download service.
#pragma once

#include <memory>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Platform/URLDownload.h"

namespace crateworks {

inline constexpr const char* kCWURLDownloadResumeType = "CWURLDownload";
inline constexpr const char* kCWHostURLResumeDataKey = "HostURL Resume Data";

class CWURLDownload : public CWDownload, private platform::URLDownloadDelegate {
public:
    static CWDownloadClass downloadClass();
    static bool canDownloadURL(const platform::URL& url) { return url.scheme() == "http"; }
    static bool canDownloadWithResumeData(const platform::Data& data);

    // Reloads ignoring local data, with a 300-second time-out. Null when it cannot start.
    static std::shared_ptr<CWURLDownload> initWithURL(const platform::URL& url, CWDownloadDelegate* delegate);
    // Continues into `destination` from the platform blob inside the resume data. Kept as
    // it always was: the delegate argument is not stored (see setDelegate()).
    static std::shared_ptr<CWURLDownload> initWithResumeData(const platform::Data& data,
                                                             const std::string& destination,
                                                             CWDownloadDelegate* delegate);

    // Dropping the download stops its transfer.
    ~CWURLDownload() override;
    void cancel() override;
    std::string sourcePath() const override { return sourceURL().path(); }
    platform::URL sourceURL() const override;
    std::optional<platform::Data> resumeData() const override;
    void setDestination(const std::string& path, bool allowOverwrite) override;
    void setDeletesFileUponFailure(bool deletes) override;
    bool deletesFileUponFailure() const override;

    // Whether "CrateworksLogHTTP" is on; read once per process.
    static bool _logHTTP();

protected:
    explicit CWURLDownload(CWDownloadDelegate* delegate) : CWDownload(delegate) {}
    // Shared by this class and its subclasses: `self` is made, then wired to a platform download.
    static bool _attach(const std::shared_ptr<CWURLDownload>& self, const platform::URL& url,
                        platform::URLTransferOptions options);
    static bool _attachResume(const std::shared_ptr<CWURLDownload>& self, const platform::Data& data,
                              std::string_view type, const std::string& destination,
                              platform::URLTransferOptions options);
    // The type string of this class's resume data.
    virtual const char* _resumeType() const { return kCWURLDownloadResumeType; }

    std::shared_ptr<platform::URLDownload> _urlDownload;

private:
    void downloadDidBegin(platform::URLDownload&) override;
    std::optional<platform::URLRequest> downloadWillSendRequestRedirectResponse(
        platform::URLDownload&, platform::URLRequest request,
        const std::optional<platform::URLResponse>& redirectResponse) override;
    void downloadDidReceiveAuthenticationChallenge(
        platform::URLDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) override;
    void downloadDidCancelAuthenticationChallenge(
        platform::URLDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) override;
    void downloadDidReceiveResponse(platform::URLDownload&, const platform::URLResponse& response) override;
    void downloadWillResumeWithResponseFromByte(platform::URLDownload&, const platform::URLResponse& response,
                                                int64_t startingByte) override;
    void downloadDidReceiveDataOfLength(platform::URLDownload&, uint64_t length) override;
    void downloadDidFinish(platform::URLDownload&) override;
    void downloadDidFailWithError(platform::URLDownload&, const platform::Error& error) override;

    bool _delegateResponds(std::string_view selector) const;
    std::shared_ptr<CWDownload> _retainSelf();
};

// Text of an HTTP header dictionary for the log lines.
std::string describeHeaderFields(const platform::Dictionary& fields);

}  // namespace crateworks
