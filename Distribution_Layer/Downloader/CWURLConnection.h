// Loads a URL synchronously into memory, with a shared user agent, a shared
// authentication handler, HTTP logging, and HTTP statuses of 400 or more as errors.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Error.h"
#include "Platform/URLAuthenticationChallenge.h"
#include "Platform/URLConnection.h"
#include "Platform/URLRequest.h"
#include "Platform/URLResponse.h"
#include "Platform/Value.h"

namespace crateworks {

inline constexpr const char* kCWURLErrorStatusCodeKey = "CWURLErrorStatusCode";
inline constexpr const char* kCWURLErrorResponseHeadersKey = "CWURLErrorResponseHeaders";

// Shows an authentication challenge to the user and answers it through CWURLConnection.
class CWAuthenticationHandler {
public:
    virtual ~CWAuthenticationHandler() = default;
    virtual void promptForAuthenticationChallenge(
        const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) = 0;
};

class CWURLConnection {
public:
    CWURLConnection() = delete;

    static std::optional<std::string> userAgent();
    static void setUserAgent(std::optional<std::string> userAgent);
    static void setSharedAuthenticationHandler(std::shared_ptr<CWAuthenticationHandler> handler);

    // Answers a challenge: through the shared handler when there is one; otherwise with the
    // proposed credential on the first attempt and none after a failure.
    static void didReceiveAuthenticationChallenge(const std::shared_ptr<platform::URLAuthenticationChallenge>& c);
    // Uses the credential, or cancels the challenge when there is none.
    static void finishAuthenticationChallenge(const std::shared_ptr<platform::URLAuthenticationChallenge>& c,
                                              const std::optional<platform::URLCredential>& credential);
    // The same, but without a credential goes on without one when `shouldContinue`.
    static void finishAuthenticationChallenge(const std::shared_ptr<platform::URLAuthenticationChallenge>& c,
                                              const std::optional<platform::URLCredential>& credential,
                                              bool shouldContinue);

    // Loads the request on the current thread's run loop and returns the body; absent when
    // cancelled or failed, with the error (an HTTP status of 400 or more included).
    static std::optional<platform::Data> sendSynchronousRequest(const platform::URLRequest& request,
                                                                std::optional<platform::URLResponse>* response,
                                                                platform::Error* error);

    // Whether "CrateworksLogHTTP" is on; read once per process.
    static bool _logHTTP();
};

namespace detail {

// Collects one synchronous load.
class CWURLConnectionDelegate : public platform::URLConnectionDelegate {
public:
    const std::optional<platform::URLResponse>& response() const { return response_; }
    void setResponse(std::optional<platform::URLResponse> r) { response_ = std::move(r); }
    const std::optional<platform::Data>& data() const { return data_; }
    void setData(std::optional<platform::Data> d) { data_ = std::move(d); }
    const std::optional<platform::Error>& error() const { return error_; }
    void setError(std::optional<platform::Error> e) { error_ = std::move(e); }
    bool isExecuting() const { return isExecuting_; }
    void setIsExecuting(bool executing) { isExecuting_ = executing; }
    bool isCancelled() const { return isCancelled_; }
    void setIsCancelled(bool cancelled) { isCancelled_ = cancelled; }

    std::optional<platform::URLRequest> connectionWillSendRequestRedirectResponse(
        platform::URLConnection&, platform::URLRequest request,
        const std::optional<platform::URLResponse>& redirectResponse) override;
    bool connectionCanAuthenticateAgainstProtectionSpace(platform::URLConnection&,
                                                         const platform::URLProtectionSpace&) override {
        return true;
    }
    void connectionDidReceiveAuthenticationChallenge(
        platform::URLConnection&, const std::shared_ptr<platform::URLAuthenticationChallenge>& c) override;
    void connectionDidCancelAuthenticationChallenge(
        platform::URLConnection&, const std::shared_ptr<platform::URLAuthenticationChallenge>&) override;
    void connectionDidReceiveResponse(platform::URLConnection& connection,
                                      const platform::URLResponse& response) override;
    void connectionDidReceiveData(platform::URLConnection&, std::span<const uint8_t> bytes) override;
    void connectionDidFinishLoading(platform::URLConnection&) override { isExecuting_ = false; }
    void connectionDidFailWithError(platform::URLConnection&, const platform::Error& error) override;

private:
    std::optional<platform::URLResponse> response_;
    std::optional<platform::Data> data_;
    std::optional<platform::Error> error_;
    bool isExecuting_ = false;
    bool isCancelled_ = false;
};

}  // namespace detail

}  // namespace crateworks
