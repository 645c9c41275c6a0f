#include "Distribution_Layer/Downloader/CWURLConnection.h"

#include <cstdlib>
#include <fmt/format.h>
#include <mutex>

#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Platform/Log.h"
#include "Platform/RunLoop.h"
#include "Platform/URLErrors.h"
#include "Platform/UserDefaults.h"

namespace crateworks {

namespace {

constexpr double kPollInterval = 0.01;

std::mutex& stateMutex() {
    static std::mutex m;
    return m;
}
std::optional<std::string>& sharedUserAgent() {
    static std::optional<std::string> agent;
    return agent;
}
std::shared_ptr<CWAuthenticationHandler>& sharedHandler() {
    static std::shared_ptr<CWAuthenticationHandler> handler;
    return handler;
}

void logHTTP(const std::string& line) {
    platform::systemLog(platform::kInstallerFacility | platform::kLogDebug, line);
}

std::string describeRequestHeaders(const platform::URLRequest& request) {
    platform::Dictionary fields;
    for (const auto& [name, value] : request.headerFields) fields.set(name, value);
    return describeHeaderFields(fields);
}

}  // namespace

std::optional<std::string> CWURLConnection::userAgent() {
    std::lock_guard lock(stateMutex());
    return sharedUserAgent();
}

void CWURLConnection::setUserAgent(std::optional<std::string> userAgent) {
    std::lock_guard lock(stateMutex());
    sharedUserAgent() = std::move(userAgent);
}

void CWURLConnection::setSharedAuthenticationHandler(std::shared_ptr<CWAuthenticationHandler> handler) {
    std::lock_guard lock(stateMutex());
    sharedHandler() = std::move(handler);
}

bool CWURLConnection::_logHTTP() {
    static const bool on = platform::defaults::boolForKey("CrateworksLogHTTP");
    return on;
}

void CWURLConnection::didReceiveAuthenticationChallenge(
    const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
    std::shared_ptr<CWAuthenticationHandler> handler;
    {
        std::lock_guard lock(stateMutex());
        handler = sharedHandler();
    }
    if (handler) {
        handler->promptForAuthenticationChallenge(challenge);
        return;
    }
    if (challenge->protectionSpace().authenticationMethod == "ServerTrust") {
        finishAuthenticationChallenge(challenge, std::nullopt, true);
        return;
    }
    if (challenge->previousFailureCount() == 0) finishAuthenticationChallenge(challenge, challenge->proposedCredential());
    else finishAuthenticationChallenge(challenge, std::nullopt);
}

void CWURLConnection::finishAuthenticationChallenge(
    const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge,
    const std::optional<platform::URLCredential>& credential) {
    if (credential) challenge->useCredential(*credential);
    else challenge->cancel();
}

void CWURLConnection::finishAuthenticationChallenge(
    const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge,
    const std::optional<platform::URLCredential>& credential, bool shouldContinue) {
    if (!credential && shouldContinue) challenge->continueWithoutCredential();
    else finishAuthenticationChallenge(challenge, credential);
}

std::optional<platform::Data> CWURLConnection::sendSynchronousRequest(const platform::URLRequest& request,
                                                                      std::optional<platform::URLResponse>* response,
                                                                      platform::Error* error) {
    if (getenv("CWDebugURLConnection")) platform::consoleLog("Loading " + request.url.absoluteString());
    platform::URLRequest toLoad = request;
    if (toLoad.url.isFileURL()) toLoad.shouldHandleCookies = false;
    detail::CWURLConnectionDelegate delegate;
    // Loads trust the same authorities as secure downloads.
    auto connection = platform::URLConnection::initWithRequest(toLoad, &delegate,
                                                               {CWSecureURLDownload::certificateAuthorityFile()});
    if (!connection) {
        platform::setError(error, platform::kURLErrorDomain, platform::kURLErrorUnsupportedURL,
                           {{platform::kURLErrorFailingURLStringKey, request.url.absoluteString()}});
        return std::nullopt;
    }
    delegate.setIsExecuting(true);
    connection->start();
    auto loop = platform::RunLoop::current();
    while (delegate.isExecuting()) loop->runFor(kPollInterval);
    if (response) *response = delegate.response();
    if (error && delegate.error()) *error = *delegate.error();
    if (delegate.isCancelled() || delegate.error()) return std::nullopt;
    return delegate.data();
}

namespace detail {

std::optional<platform::URLRequest> CWURLConnectionDelegate::connectionWillSendRequestRedirectResponse(
    platform::URLConnection&, platform::URLRequest request, const std::optional<platform::URLResponse>&) {
    if (auto agent = CWURLConnection::userAgent()) request.setValue(*agent, "User-Agent");
    if (CWURLConnection::_logHTTP())
        logHTTP(fmt::format("Sending request {} {}", request.url.absoluteString(), describeRequestHeaders(request)));
    return request;
}

void CWURLConnectionDelegate::connectionDidReceiveAuthenticationChallenge(
    platform::URLConnection&, const std::shared_ptr<platform::URLAuthenticationChallenge>& c) {
    CWURLConnection::didReceiveAuthenticationChallenge(c);
}

void CWURLConnectionDelegate::connectionDidCancelAuthenticationChallenge(
    platform::URLConnection&, const std::shared_ptr<platform::URLAuthenticationChallenge>&) {
    isCancelled_ = true;
    isExecuting_ = false;
}

void CWURLConnectionDelegate::connectionDidReceiveResponse(platform::URLConnection& connection,
                                                           const platform::URLResponse& response) {
    if (CWURLConnection::_logHTTP() && response.isHTTP)
        logHTTP(fmt::format("Received response {} code {}\n{}", response.url.absoluteString(), response.statusCode,
                            describeHeaderFields(response.headerFields)));
    if (response.isHTTP && response.statusCode >= 400) {
        connection.cancel();
        int code = response.statusCode == 403 ? platform::kURLErrorNoPermissionsToReadFile
                                              : platform::kURLErrorFileDoesNotExist;
        platform::Dictionary info{{platform::kURLErrorFailingURLStringKey, response.url.absoluteString()},
                                  {kCWURLErrorStatusCodeKey, response.statusCode},
                                  {kCWURLErrorResponseHeadersKey, response.headerFields}};
        connectionDidFailWithError(connection, platform::Error{platform::kURLErrorDomain, code, std::move(info)});
        return;
    }
    response_ = response;
    data_ = platform::Data{};
}

void CWURLConnectionDelegate::connectionDidReceiveData(platform::URLConnection&, std::span<const uint8_t> bytes) {
    if (data_) data_->insert(data_->end(), bytes.begin(), bytes.end());
}

void CWURLConnectionDelegate::connectionDidFailWithError(platform::URLConnection&, const platform::Error& error) {
    data_.reset();
    error_ = error;
    isExecuting_ = false;
}

}  // namespace detail

}  // namespace crateworks
