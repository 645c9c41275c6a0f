#include "Platform/URLConnection.h"

#include <cmath>
#include <fmt/format.h>
#include <sys/stat.h>

#include "Platform/CurlDriver.h"
#include "Platform/CurlLibrary.h"
#include "Platform/FileDetail.h"
#include "Platform/Netrc.h"
#include "Platform/URLErrors.h"

namespace platform {

namespace {

constexpr long kReceiveBufferSize = 256 * 1024;

CURL* handle(void* p) { return static_cast<CURL*>(p); }

// A connection exists only once the library has loaded (initWithRequest).
const CurlLibrary& curl() { return CurlLibrary::loaded(); }

size_t headerCallback(char* data, size_t size, size_t count, void* self) {
    return static_cast<URLConnection*>(self)->_headerLine(std::string_view(data, size * count));
}

size_t writeCallback(char* data, size_t size, size_t count, void* self) {
    auto* bytes = reinterpret_cast<const uint8_t*>(data);
    return static_cast<URLConnection*>(self)->_bodyBytes(std::span<const uint8_t>(bytes, size * count));
}

std::string trimmed(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
        s.remove_suffix(1);
    return std::string(s);
}

int urlErrorForCurl(CURLcode code) {
    switch (code) {
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM: return kURLErrorNetworkConnectionLost;
    case CURLE_OPERATION_TIMEDOUT: return kURLErrorTimedOut;
    case CURLE_COULDNT_RESOLVE_HOST: return kURLErrorCannotFindHost;
    case CURLE_COULDNT_CONNECT: return kURLErrorCannotConnectToHost;
    case CURLE_UNSUPPORTED_PROTOCOL: return kURLErrorUnsupportedURL;
    case CURLE_URL_MALFORMAT: return kURLErrorBadURL;
    case CURLE_PEER_FAILED_VERIFICATION: return kURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE: return kURLErrorSecureConnectionFailed;
    case CURLE_FILE_COULDNT_READ_FILE: return kURLErrorFileDoesNotExist;
    case CURLE_WEIRD_SERVER_REPLY: return kURLErrorBadServerResponse;
    default: return kURLErrorUnknown;
    }
}

bool isRedirect(int status) { return status == 301 || status == 302 || status == 303 || status == 307 || status == 308; }

// The scheme and realm of a WWW-Authenticate value such as `Basic realm="area"`.
void parseChallenge(const std::string& value, std::string* scheme, std::string* realm) {
    *scheme = value.substr(0, value.find(' '));
    auto at = value.find("realm=");
    if (at == std::string::npos) return;
    std::string rest = value.substr(at + 6);
    if (!rest.empty() && rest.front() == '"') {
        auto end = rest.find('"', 1);
        *realm = rest.substr(1, end == std::string::npos ? std::string::npos : end - 1);
    } else {
        *realm = rest.substr(0, rest.find(','));
    }
}

}  // namespace

bool URLConnection::redirectAllowed(const URL& from, const URL& to) {
    const std::string& scheme = to.scheme();
    if (scheme != "http" && scheme != "https") return false;
    return !(from.scheme() == "https" && scheme == "http");
}

bool URLConnection::sameOrigin(const URL& a, const URL& b) {
    return a.scheme() == b.scheme() && equalsIgnoringCase(a.host(), b.host()) && a.port() == b.port();
}

std::shared_ptr<URLConnection> URLConnection::initWithRequest(const URLRequest& request,
                                                              URLConnectionDelegate* delegate,
                                                              URLTransferOptions options) {
    const std::string& scheme = request.url.scheme();
    if (scheme != "http" && scheme != "https" && scheme != "file") return nullptr;
    if (!CurlLibrary::get()) return nullptr;
    return std::shared_ptr<URLConnection>(new URLConnection(request, delegate, std::move(options)));
}

URLConnection::URLConnection(const URLRequest& request, URLConnectionDelegate* delegate, URLTransferOptions options)
    : original_(request), current_(request), delegate_(delegate), options_(std::move(options)),
      loop_(RunLoop::current()) {
    CurlDriver::current();  // global curl set-up happens there
    easy_ = curl().easy_init();
}

URLConnection::~URLConnection() {
    if (easy_) {
        CurlDriver::current().remove(handle(easy_));
        curl().easy_cleanup(handle(easy_));
    }
    curl().slist_free_all(static_cast<curl_slist*>(headerList_));
}

void URLConnection::start() {
    if (keepAlive_ || cancelled_) return;
    keepAlive_ = shared_from_this();
    _beginRequest(original_, std::nullopt);
}

void URLConnection::cancel() {
    if (cancelled_) return;
    cancelled_ = true;
    if (pendingChallenge_) {
        auto challenge = std::move(pendingChallenge_);
        if (delegate_) delegate_->connectionDidCancelAuthenticationChallenge(*this, challenge);
    }
    // Inside a curl callback the handle cannot be taken off; the callback refuses the data instead.
    if (!inCurlCallback_) {
        CurlDriver::current().remove(handle(easy_));
        _release();
    }
}

void URLConnection::_release() {
    // The last reference may be this one: let go of it only from the run loop.
    if (auto self = std::move(keepAlive_)) loop_->perform([self] {});
}

void URLConnection::_beginRequest(URLRequest request, const std::optional<URLResponse>& redirectResponse) {
    auto self = shared_from_this();
    std::optional<URLRequest> next = std::move(request);
    if (delegate_) next = delegate_->connectionWillSendRequestRedirectResponse(*this, std::move(*next), redirectResponse);
    if (cancelled_) return;
    if (!next) {
        _fail(kURLErrorCancelled, redirectResponse ? "redirect refused" : "request refused");
        return;
    }
    current_ = std::move(*next);
    _startHop();
}

void URLConnection::_startHop() {
    // curl reads a FIFO or a device that a file URL names until it ends, which may be
    // never, or finds nothing in it and calls that a success: only a regular file (a
    // link to one included) is a file to load.
    if (current_.url.isFileURL()) {
        struct stat st {};
        if (::stat(current_.url.path().c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
            _fail(S_ISDIR(st.st_mode) ? kURLErrorFileIsDirectory : kURLErrorNoPermissionsToReadFile,
                  fmt::format("{}: is {}, not a regular file", current_.url.path(), fs::detail::kindOfMode(st.st_mode)));
            return;
        }
    }
    mode_ = Mode::Pending;
    response_.reset();
    headerLines_.clear();
    heldBody_.clear();
    status_ = 0;
    _configureHandle();
    auto self = shared_from_this();
    CurlDriver::current().add(handle(easy_), [self](CURLcode code) { self->_hopDone(code); });
}

void URLConnection::_configureHandle() {
    CURL* h = handle(easy_);
    curl().easy_reset(h);
    curl().easy_setopt(h, CURLOPT_URL, current_.url.absoluteString().c_str());
    // Only the scheme of this hop, which was checked before it began.
    curl().easy_setopt(h, CURLOPT_PROTOCOLS_STR, current_.url.scheme().c_str());
    curl().easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    // Redirects are followed here, one hop at a time, so that the delegate sees each one.
    curl().easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
    curl().easy_setopt(h, CURLOPT_BUFFERSIZE, kReceiveBufferSize);
    curl().easy_setopt(h, CURLOPT_ERRORBUFFER, errorBuffer_);
    curl().easy_setopt(h, CURLOPT_HEADERFUNCTION, &headerCallback);
    curl().easy_setopt(h, CURLOPT_HEADERDATA, this);
    curl().easy_setopt(h, CURLOPT_WRITEFUNCTION, &writeCallback);
    curl().easy_setopt(h, CURLOPT_WRITEDATA, this);
    // The request's time-out bounds a stall, not the whole transfer.
    long idle = std::max(1L, long(std::ceil(current_.timeoutInterval)));
    curl().easy_setopt(h, CURLOPT_CONNECTTIMEOUT, idle);
    curl().easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl().easy_setopt(h, CURLOPT_LOW_SPEED_TIME, idle);
    curl().easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl().easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    if (options_.caFile) curl().easy_setopt(h, CURLOPT_CAINFO, options_.caFile->c_str());
    curl().slist_free_all(static_cast<curl_slist*>(headerList_));
    curl_slist* list = nullptr;
    for (const auto& [name, value] : current_.headerFields)
        list = curl().slist_append(list, fmt::format("{}: {}", name, value).c_str());
    headerList_ = list;
    curl().easy_setopt(h, CURLOPT_HTTPHEADER, list);
    if (credential_ && credentialOrigin_ && sameOrigin(*credentialOrigin_, current_.url)) {
        curl().easy_setopt(h, CURLOPT_USERNAME, credential_->user.c_str());
        curl().easy_setopt(h, CURLOPT_PASSWORD, credential_->password.c_str());
        long method = equalsIgnoringCase(authScheme_, "Digest") ? CURLAUTH_DIGEST : CURLAUTH_BASIC;
        curl().easy_setopt(h, CURLOPT_HTTPAUTH, method);
    }
}

size_t URLConnection::_headerLine(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        // A new status line: an interim answer (100 Continue) came before, or this is the first.
        headerLines_.clear();
        auto space = line.find(' ');
        status_ = space == std::string_view::npos ? 0 : std::atoi(std::string(line.substr(space + 1, 3)).c_str());
        return line.size();
    }
    auto colon = line.find(':');
    if (colon != std::string_view::npos)
        headerLines_.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
    return line.size();
}

void URLConnection::_headersComplete() {
    URLResponse response(current_.url);
    response.isHTTP = !current_.url.isFileURL();
    response.statusCode = status_;
    for (const auto& [name, value] : headerLines_) {
        Value* existing = response.headerFields.find(name);
        if (existing && existing->string()) *existing = *existing->string() + ", " + value;
        else response.headerFields.set(name, value);
    }
    curl_off_t length = -1;
    curl().easy_getinfo(handle(easy_), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    response.expectedContentLength = length;
    response_ = response;
    if (response.isHTTP && isRedirect(status_) && response.valueForHeaderField("Location")) {
        mode_ = Mode::Redirect;
    } else if (response.isHTTP && status_ == 401 && response.valueForHeaderField("WWW-Authenticate")) {
        mode_ = Mode::Challenge;
    } else {
        mode_ = Mode::Deliver;
        if (delegate_) delegate_->connectionDidReceiveResponse(*this, response);
    }
}

size_t URLConnection::_bodyBytes(std::span<const uint8_t> bytes) {
    if (cancelled_) return 0;
    auto self = shared_from_this();
    inCurlCallback_ = true;
    if (mode_ == Mode::Pending) _headersComplete();
    if (mode_ == Mode::Challenge) heldBody_.insert(heldBody_.end(), bytes.begin(), bytes.end());
    if (mode_ == Mode::Deliver && !cancelled_ && delegate_) delegate_->connectionDidReceiveData(*this, bytes);
    inCurlCallback_ = false;
    // A refused count makes curl end the transfer; its completion is then dropped.
    return cancelled_ ? 0 : bytes.size();
}

void URLConnection::_hopDone(int curlCode) {
    if (cancelled_) {
        _release();
        return;
    }
    auto code = CURLcode(curlCode);
    if (code == CURLE_OK && mode_ == Mode::Pending) {
        inCurlCallback_ = true;  // keeps a cancel from the delegate from touching the finished handle twice
        _headersComplete();
        inCurlCallback_ = false;
        if (cancelled_) {
            _release();
            return;
        }
    }
    if (code != CURLE_OK) {
        _fail(urlErrorForCurl(code), errorBuffer_[0] ? errorBuffer_ : curl().easy_strerror(code));
        return;
    }
    switch (mode_) {
    case Mode::Redirect: _followRedirect(); return;
    case Mode::Challenge: _raiseChallenge(); return;
    default:
        if (delegate_) delegate_->connectionDidFinishLoading(*this);
        _release();
    }
}

void URLConnection::_followRedirect() {
    if (++redirectCount_ > kMaximumRedirects) {
        _fail(kURLErrorHTTPTooManyRedirects, "too many redirects");
        return;
    }
    auto target = URL::parse(*response_->valueForHeaderField("Location"), current_.url);
    if (!target) {
        _fail(kURLErrorBadServerResponse, "redirect to an invalid location");
        return;
    }
    if (!redirectAllowed(current_.url, *target)) {
        bool downgrade = current_.url.scheme() == "https" && target->scheme() == "http";
        _fail(downgrade ? kURLErrorSecureConnectionFailed : kURLErrorUnsupportedURL,
              fmt::format("redirect to {} refused", target->absoluteString()));
        return;
    }
    URLRequest next = current_;
    next.url = *target;
    if (!sameOrigin(current_.url, *target)) {
        // What was given for one origin goes to no other.
        credential_.reset();
        credentialOrigin_.reset();
        authFailures_ = 0;
        std::erase_if(next.headerFields, [](const auto& field) {
            return equalsIgnoringCase(field.first, "Authorization") ||
                   equalsIgnoringCase(field.first, "Proxy-Authorization");
        });
    }
    _beginRequest(std::move(next), response_);
}

void URLConnection::_raiseChallenge() {
    URLProtectionSpace space;
    space.host = current_.url.host();
    space.port = current_.url.port();
    space.protocol = current_.url.scheme();
    std::string realm;
    parseChallenge(*response_->valueForHeaderField("WWW-Authenticate"), &authScheme_, &realm);
    space.realm = realm;
    space.authenticationMethod = equalsIgnoringCase(authScheme_, "Basic")    ? "HTTPBasic"
                                 : equalsIgnoringCase(authScheme_, "Digest") ? "HTTPDigest"
                                                                             : authScheme_;
    if (delegate_ && !delegate_->connectionCanAuthenticateAgainstProtectionSpace(*this, space)) {
        _deliverBufferedResponse();
        return;
    }
    // After a failure the credential that failed is proposed again, as the caller may want to show it.
    auto proposed = credential_ ? credential_ : netrc::credentialForHost(space.host);
    std::weak_ptr<URLConnection> weak = shared_from_this();
    auto responder = [weak](URLAuthenticationChallenge::Answer answer, const std::optional<URLCredential>& credential) {
        auto self = weak.lock();
        // Answered from inside the delegate's callback: act once that call has returned.
        if (self) self->loop_->perform([self, answer, credential] { self->_answerChallenge(answer, credential); });
    };
    pendingChallenge_ =
        std::make_shared<URLAuthenticationChallenge>(space, proposed, authFailures_, *response_, responder);
    auto challenge = pendingChallenge_;
    if (delegate_) delegate_->connectionDidReceiveAuthenticationChallenge(*this, challenge);
    else challenge->continueWithoutCredential();
}

void URLConnection::_answerChallenge(URLAuthenticationChallenge::Answer answer,
                                     const std::optional<URLCredential>& credential) {
    if (cancelled_) return;
    pendingChallenge_.reset();
    if (answer == URLAuthenticationChallenge::Answer::UseCredential && credential) {
        credential_ = credential;
        credentialOrigin_ = current_.url;
        ++authFailures_;
        _startHop();
        return;
    }
    _deliverBufferedResponse();
}

void URLConnection::_deliverBufferedResponse() {
    auto self = shared_from_this();
    mode_ = Mode::Deliver;
    if (delegate_) delegate_->connectionDidReceiveResponse(*this, *response_);
    if (!cancelled_ && delegate_ && !heldBody_.empty()) delegate_->connectionDidReceiveData(*this, heldBody_);
    if (!cancelled_ && delegate_) delegate_->connectionDidFinishLoading(*this);
    _release();
}

void URLConnection::_fail(int code, const std::string& description) {
    Dictionary info{{kURLErrorFailingURLStringKey, current_.url.absoluteString()},
                    {kErrorDescriptionKey, description}};
    Error error{kURLErrorDomain, code, std::move(info)};
    auto self = shared_from_this();
    if (delegate_) delegate_->connectionDidFailWithError(*this, error);
    _release();
}

}  // namespace platform
