// What a download tells its delegate. Every callback is optional: a download makes a
// call only when respondsToSelector() says the delegate implements it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "Platform/Error.h"
#include "Platform/URLAuthenticationChallenge.h"
#include "Platform/URLRequest.h"
#include "Platform/URLResponse.h"

namespace crateworks {

class CWDownload;

class CWDownloadDelegate {
public:
    virtual ~CWDownloadDelegate() = default;

    // Whether the delegate implements the callback of this selector, such as
    // "downloadDidFinish:". By default: every callback below by its own selector, and not
    // "download:willResumeFomByte:", the name URL downloads test before telling of a resume.
    virtual bool respondsToSelector(std::string_view selector) const;

    virtual void downloadDidBegin(CWDownload&) {}
    virtual void downloadWillResumeFromByte(CWDownload&, int64_t /*offset*/) {}
    virtual void downloadDidReceiveDataOfLength(CWDownload&, uint64_t /*length*/) {}
    virtual void downloadDidCheckDataOfLength(CWDownload&, uint64_t /*length*/) {}
    virtual void downloadDidFinish(CWDownload&) {}
    virtual void downloadDidFailWithError(CWDownload&, const platform::Error&) {}
    // The request to send (absent refuses it).
    virtual std::optional<platform::URLRequest> downloadWillSendRequestRedirectResponse(
        CWDownload&, platform::URLRequest request, const std::optional<platform::URLResponse>& /*redirect*/) {
        return request;
    }
    virtual void downloadDidReceiveResponse(CWDownload&, const platform::URLResponse&) {}
    virtual void downloadDidReceiveAuthenticationChallenge(
        CWDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
        challenge->continueWithoutCredential();
    }
    virtual void downloadDidCancelAuthenticationChallenge(
        CWDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>&) {}
};

}  // namespace crateworks
