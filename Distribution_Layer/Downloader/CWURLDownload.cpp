#include "Distribution_Layer/Downloader/CWURLDownload.h"

#include <fmt/format.h>

#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "Platform/UserDefaults.h"

namespace crateworks {

namespace {

constexpr double kTimeoutInterval = 300;

void logHTTP(const std::string& line) {
    platform::systemLog(platform::kInstallerFacility | platform::kLogDebug, line);
}

}  // namespace

std::string describeHeaderFields(const platform::Dictionary& fields) {
    std::string text = "{\n";
    for (const auto& [name, value] : fields)
        text += fmt::format("    \"{}\" = \"{}\";\n", name, value.string() ? *value.string() : value.description());
    return text + "}";
}

CWDownloadClass CWURLDownload::downloadClass() {
    return CWDownloadClass{
        "CWURLDownload", &CWURLDownload::canDownloadURL, &CWURLDownload::canDownloadWithResumeData,
        [](const platform::URL& url, CWDownloadDelegate* d) -> std::shared_ptr<CWDownload> {
            return initWithURL(url, d);
        },
        [](const platform::Data& data, const std::string& dst, CWDownloadDelegate* d) -> std::shared_ptr<CWDownload> {
            return initWithResumeData(data, dst, d);
        }};
}

bool CWURLDownload::_logHTTP() {
    static const bool on = platform::defaults::boolForKey("CrateworksLogHTTP");
    return on;
}

bool CWURLDownload::canDownloadWithResumeData(const platform::Data& data) {
    return _resumeDictionary(data, kCWURLDownloadResumeType).has_value();
}

std::shared_ptr<CWURLDownload> CWURLDownload::initWithURL(const platform::URL& url, CWDownloadDelegate* delegate) {
    auto download = std::shared_ptr<CWURLDownload>(new CWURLDownload(delegate));
    return _attach(download, url, {}) ? download : nullptr;
}

std::shared_ptr<CWURLDownload> CWURLDownload::initWithResumeData(const platform::Data& data,
                                                                 const std::string& destination,
                                                                 CWDownloadDelegate*) {
    auto download = std::shared_ptr<CWURLDownload>(new CWURLDownload(nullptr));
    return _attachResume(download, data, kCWURLDownloadResumeType, destination, {}) ? download : nullptr;
}

bool CWURLDownload::_attach(const std::shared_ptr<CWURLDownload>& self, const platform::URL& url,
                            platform::URLTransferOptions options) {
    platform::URLRequest request(url, platform::URLRequest::ReloadIgnoringLocalCacheData, kTimeoutInterval);
    self->_urlDownload = platform::URLDownload::initWithRequest(request, self.get(), std::move(options));
    return self->_urlDownload != nullptr;
}

bool CWURLDownload::_attachResume(const std::shared_ptr<CWURLDownload>& self, const platform::Data& data,
                                  std::string_view type, const std::string& destination,
                                  platform::URLTransferOptions options) {
    if (destination.empty()) return false;
    auto dictionary = _resumeDictionary(data, type);
    const platform::Value* blob = dictionary ? dictionary->find(kCWHostURLResumeDataKey) : nullptr;
    if (!blob || !blob->data()) return false;
    self->_dstPath = destination;
    self->_urlDownload =
        platform::URLDownload::initWithResumeData(*blob->data(), self.get(), destination, std::move(options));
    return self->_urlDownload != nullptr;
}

CWURLDownload::~CWURLDownload() {
    if (_urlDownload) _urlDownload->cancel();
}

void CWURLDownload::cancel() { _urlDownload->cancel(); }

platform::URL CWURLDownload::sourceURL() const { return _urlDownload->request().url; }

std::optional<platform::Data> CWURLDownload::resumeData() const {
    auto blob = _urlDownload->resumeData();
    if (!blob) return std::nullopt;
    platform::Dictionary d{{kCWResumeDataTypeKey, _resumeType()}, {kCWHostURLResumeDataKey, std::move(*blob)}};
    return platform::plist::toBinary(platform::Value(std::move(d)));
}

void CWURLDownload::setDestination(const std::string& path, bool allowOverwrite) {
    CWDownload::setDestination(path, allowOverwrite);
    _urlDownload->setDestination(path, allowOverwrite);
}

void CWURLDownload::setDeletesFileUponFailure(bool deletes) {
    CWDownload::setDeletesFileUponFailure(deletes);
    _urlDownload->setDeletesFileUponFailure(deletes);
}

bool CWURLDownload::deletesFileUponFailure() const { return _urlDownload->deletesFileUponFailure(); }

bool CWURLDownload::_delegateResponds(std::string_view selector) const {
    return _delegate && _delegate->respondsToSelector(selector);
}

std::shared_ptr<CWDownload> CWURLDownload::_retainSelf() { return shared_from_this(); }

void CWURLDownload::downloadDidBegin(platform::URLDownload&) {
    auto self = _retainSelf();
    if (_delegateResponds("downloadDidBegin:")) _delegate->downloadDidBegin(*this);
}

std::optional<platform::URLRequest> CWURLDownload::downloadWillSendRequestRedirectResponse(
    platform::URLDownload&, platform::URLRequest request, const std::optional<platform::URLResponse>& redirect) {
    if (!_delegateResponds("download:willSendRequest:redirectResponse:")) return request;
    return _delegate->downloadWillSendRequestRedirectResponse(*this, std::move(request), redirect);
}

void CWURLDownload::downloadDidReceiveAuthenticationChallenge(
    platform::URLDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
    if (_delegateResponds("download:didReceiveAuthenticationChallenge:"))
        _delegate->downloadDidReceiveAuthenticationChallenge(*this, challenge);
    else
        challenge->continueWithoutCredential();
}

void CWURLDownload::downloadDidCancelAuthenticationChallenge(
    platform::URLDownload&, const std::shared_ptr<platform::URLAuthenticationChallenge>& challenge) {
    if (_delegateResponds("download:didCancelAuthenticationChallenge:"))
        _delegate->downloadDidCancelAuthenticationChallenge(*this, challenge);
}

void CWURLDownload::downloadDidReceiveResponse(platform::URLDownload&, const platform::URLResponse& response) {
    auto self = _retainSelf();
    if (_logHTTP() && response.isHTTP)
        logHTTP(fmt::format("Received response {} code {}\n{}", response.url.absoluteString(), response.statusCode,
                            describeHeaderFields(response.headerFields)));
    if (_delegateResponds("download:didReceiveResponse:")) _delegate->downloadDidReceiveResponse(*this, response);
}

void CWURLDownload::downloadWillResumeWithResponseFromByte(platform::URLDownload&,
                                                           const platform::URLResponse& response,
                                                           int64_t startingByte) {
    auto self = _retainSelf();
    if (_logHTTP())
        logHTTP(fmt::format("Received resume response {} code {}\n{}", response.url.absoluteString(),
                            response.statusCode, describeHeaderFields(response.headerFields)));
    // The name tested is misspelt, and has always been: a delegate must answer to it to hear of resumes.
    if (_delegateResponds("download:willResumeFomByte:")) _delegate->downloadWillResumeFromByte(*this, startingByte);
}

void CWURLDownload::downloadDidReceiveDataOfLength(platform::URLDownload&, uint64_t length) {
    auto self = _retainSelf();
    if (_delegateResponds("download:didReceiveDataOfLength:")) _delegate->downloadDidReceiveDataOfLength(*this, length);
}

void CWURLDownload::downloadDidFinish(platform::URLDownload&) {
    auto self = _retainSelf();
    if (_delegateResponds("downloadDidFinish:")) _delegate->downloadDidFinish(*this);
}

void CWURLDownload::downloadDidFailWithError(platform::URLDownload&, const platform::Error& error) {
    auto self = _retainSelf();
    if (_delegateResponds("download:didFailWithError:")) _delegate->downloadDidFailWithError(*this, error);
}

}  // namespace crateworks
