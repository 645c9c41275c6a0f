// Loads one request over libcurl on the creating thread's run loop and reports to a
// delegate: each request about to be sent (redirects are followed here, one hop at a
// time, so the delegate may change or refuse each), authentication challenges, the
// response, the body as it arrives, and the end.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/Error.h"
#include "Platform/RunLoop.h"
#include "Platform/URLAuthenticationChallenge.h"
#include "Platform/URLRequest.h"
#include "Platform/URLResponse.h"

namespace platform {

class URLConnection;

// Every callback has a default: requests stand, any protection space is accepted,
// challenges go on without a credential, everything else is ignored.
class URLConnectionDelegate {
public:
    virtual ~URLConnectionDelegate() = default;
    // The request to send, or absent to refuse it: the load then fails as cancelled.
    virtual std::optional<URLRequest> connectionWillSendRequestRedirectResponse(
        URLConnection&, URLRequest request, const std::optional<URLResponse>& redirectResponse) {
        (void)redirectResponse;
        return request;
    }
    virtual bool connectionCanAuthenticateAgainstProtectionSpace(URLConnection&, const URLProtectionSpace&) {
        return true;
    }
    virtual void connectionDidReceiveAuthenticationChallenge(URLConnection&,
                                                             const std::shared_ptr<URLAuthenticationChallenge>& c) {
        c->continueWithoutCredential();
    }
    virtual void connectionDidCancelAuthenticationChallenge(URLConnection&,
                                                            const std::shared_ptr<URLAuthenticationChallenge>&) {}
    virtual void connectionDidReceiveResponse(URLConnection&, const URLResponse&) {}
    virtual void connectionDidReceiveData(URLConnection&, std::span<const uint8_t>) {}
    virtual void connectionDidFinishLoading(URLConnection&) {}
    virtual void connectionDidFailWithError(URLConnection&, const Error&) {}
};

struct URLTransferOptions {
    // Certificate authorities to trust for https instead of the system's store.
    std::optional<std::string> caFile;
};

class URLConnection : public std::enable_shared_from_this<URLConnection> {
public:
    // A connection for the request; nothing is sent before start(). Null for a URL whose
    // scheme cannot be loaded (http, https and file can).
    static std::shared_ptr<URLConnection> initWithRequest(const URLRequest& request, URLConnectionDelegate* delegate,
                                                          URLTransferOptions options = {});
    ~URLConnection();
    URLConnection(const URLConnection&) = delete;
    URLConnection& operator=(const URLConnection&) = delete;

    // Starts loading on the calling thread's run loop; the connection keeps itself alive
    // until it has finished, failed or been cancelled.
    void start();
    // Stops loading; no delegate call follows (except the cancel of a pending challenge).
    void cancel();

    const URLRequest& originalRequest() const { return original_; }
    // The request of the hop being loaded.
    const URLRequest& currentRequest() const { return current_; }

    // Hops a load follows at most before failing with too many redirects.
    static constexpr int kMaximumRedirects = 16;
    // Whether a server may send a load from `from` on to `to`: only to http or https (a
    // remote answer must never reach a local file), and never from https down to http.
    static bool redirectAllowed(const URL& from, const URL& to);
    // Same scheme, host and port: where a credential given for one may also go.
    static bool sameOrigin(const URL& a, const URL& b);

    // Internal: the callbacks of the curl handle.
    size_t _headerLine(std::string_view line);
    size_t _bodyBytes(std::span<const uint8_t> bytes);

private:
    enum class Mode { Pending, Deliver, Redirect, Challenge };

    URLConnection(const URLRequest& request, URLConnectionDelegate* delegate, URLTransferOptions options);
    void _beginRequest(URLRequest request, const std::optional<URLResponse>& redirectResponse);
    void _startHop();
    void _configureHandle();
    void _headersComplete();
    void _hopDone(int curlCode);
    void _followRedirect();
    void _raiseChallenge();
    void _answerChallenge(URLAuthenticationChallenge::Answer answer, const std::optional<URLCredential>& credential);
    void _deliverBufferedResponse();
    void _fail(int code, const std::string& description);
    void _release();

    URLRequest original_;
    URLRequest current_;
    URLConnectionDelegate* delegate_;
    URLTransferOptions options_;
    std::shared_ptr<RunLoop> loop_;
    void* easy_ = nullptr;
    void* headerList_ = nullptr;
    std::shared_ptr<URLConnection> keepAlive_;
    bool cancelled_ = false;
    bool inCurlCallback_ = false;
    int redirectCount_ = 0;
    int authFailures_ = 0;
    std::optional<URLCredential> credential_;
    // Where credential_ was given: it is sent nowhere else.
    std::optional<URL> credentialOrigin_;
    std::string authScheme_;
    std::shared_ptr<URLAuthenticationChallenge> pendingChallenge_;

    // The hop being loaded.
    Mode mode_ = Mode::Pending;
    std::optional<URLResponse> response_;
    std::vector<std::pair<std::string, std::string>> headerLines_;
    int status_ = 0;
    std::vector<uint8_t> heldBody_;
    char errorBuffer_[256] = {};
};

}  // namespace platform
