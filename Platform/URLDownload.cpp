#include "Platform/URLDownload.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/FileSystem.h"
#include "Platform/PropertyList.h"
#include "Platform/Strings.h"
#include "Platform/URLErrors.h"

namespace platform {

namespace {

// Keys of the resume blob.
constexpr const char* kBlobURL = "URL";
constexpr const char* kBlobValidatorField = "ValidatorField";
constexpr const char* kBlobValidator = "Validator";
constexpr const char* kBlobBytesOnDisk = "BytesOnDisk";
constexpr const char* kBlobCachePolicy = "CachePolicy";
constexpr const char* kBlobTimeout = "TimeoutInterval";

// The first byte of a "Content-Range: bytes START-END/TOTAL" value, or -1.
int64_t contentRangeStart(const std::optional<std::string>& value) {
    if (!value || !str::hasPrefix(*value, "bytes ")) return -1;
    char* end = nullptr;
    long long start = strtoll(value->c_str() + 6, &end, 10);
    return end && *end == '-' ? int64_t(start) : -1;
}

}  // namespace

std::shared_ptr<URLDownload> URLDownload::initWithRequest(const URLRequest& request, URLDownloadDelegate* delegate,
                                                          URLTransferOptions options) {
    const std::string& scheme = request.url.scheme();
    if (scheme != "http" && scheme != "https" && scheme != "file") return nullptr;
    auto download = std::shared_ptr<URLDownload>(new URLDownload(request, delegate, std::move(options)));
    std::weak_ptr<URLDownload> weak = download;
    RunLoop::current()->perform([weak] {
        if (auto self = weak.lock()) self->_start();
    });
    return download;
}

std::shared_ptr<URLDownload> URLDownload::initWithResumeData(const Data& resumeData, URLDownloadDelegate* delegate,
                                                             const std::string& path, URLTransferOptions options) {
    auto blob = plist::readBytes(resumeData);
    const Dictionary* d = blob ? blob->dictionary() : nullptr;
    if (!d || !d->findString(kBlobURL) || !d->findString(kBlobValidator) || !d->findString(kBlobValidatorField))
        return nullptr;
    auto url = URL::parse(*d->findString(kBlobURL));
    const Value* bytes = d->find(kBlobBytesOnDisk);
    if (!url || !bytes || !bytes->integer()) return nullptr;
    URLRequest request(*url);
    if (const Value* policy = d->find(kBlobCachePolicy)) request.cachePolicy = int(policy->integer().value_or(0));
    if (const Value* timeout = d->find(kBlobTimeout)) request.timeoutInterval = timeout->real().value_or(60);
    auto download = initWithRequest(request, delegate, std::move(options));
    if (!download) return nullptr;
    download->destination_ = path;
    download->allowOverwrite_ = true;
    download->isResume_ = true;
    download->validatorField_ = *d->findString(kBlobValidatorField);
    download->validator_ = *d->findString(kBlobValidator);
    // Only bytes still on disk can be continued; a shorter file is still a prefix of the body.
    struct stat st {};
    int64_t onDisk = stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? int64_t(st.st_size) : 0;
    download->resumeOffset_ = std::min(onDisk, std::max<int64_t>(*bytes->integer(), 0));
    download->bytesOnDisk_ = download->resumeOffset_;
    download->resumable_ = true;
    return download;
}

URLDownload::URLDownload(const URLRequest& request, URLDownloadDelegate* delegate, URLTransferOptions options)
    : request_(request), delegate_(delegate), options_(std::move(options)) {}

URLDownload::~URLDownload() {
    if (connection_) connection_->cancel();
    _closeDestination();
}

void URLDownload::setDestination(const std::string& path, bool allowOverwrite) {
    if (destinationFile_ || finished_) return;
    destination_ = path;
    allowOverwrite_ = allowOverwrite;
}

void URLDownload::_start() {
    if (cancelled_) return;
    // From here on the transfer keeps the download alive until it ends.
    keepAlive_ = shared_from_this();
    auto self = keepAlive_;
    if (delegate_) delegate_->downloadDidBegin(*this);
    if (!cancelled_) _connect();
}

void URLDownload::_connect() {
    URLRequest request = request_;
    if (isResume_ && resumeOffset_ > 0) {
        request.setValue("bytes=" + std::to_string(resumeOffset_) + "-", "Range");
        // Sent exactly as the server gave it: any change would make every resume start over.
        request.setValue(validator_, "If-Range");
    }
    connection_ = URLConnection::initWithRequest(request, this, options_);
    connection_->start();
}

void URLDownload::cancel() {
    if (cancelled_) return;
    cancelled_ = true;
    if (connection_) connection_->cancel();
    _closeDestination();
    keepAlive_.reset();
}

std::optional<Data> URLDownload::resumeData() const {
    if (!resumable_ || !destination_ || validator_.empty()) return std::nullopt;
    Dictionary blob{{kBlobURL, request_.url.absoluteString()},
                    {kBlobValidatorField, validatorField_},
                    {kBlobValidator, validator_},
                    {kBlobBytesOnDisk, bytesOnDisk_},
                    {kBlobCachePolicy, request_.cachePolicy},
                    {kBlobTimeout, request_.timeoutInterval}};
    return plist::toBinary(Value(std::move(blob)));
}

std::optional<URLRequest> URLDownload::connectionWillSendRequestRedirectResponse(
    URLConnection&, URLRequest request, const std::optional<URLResponse>& redirectResponse) {
    if (!delegate_) return request;
    return delegate_->downloadWillSendRequestRedirectResponse(*this, std::move(request), redirectResponse);
}

void URLDownload::connectionDidReceiveAuthenticationChallenge(URLConnection&,
                                                              const std::shared_ptr<URLAuthenticationChallenge>& c) {
    if (delegate_) delegate_->downloadDidReceiveAuthenticationChallenge(*this, c);
    else c->continueWithoutCredential();
}

void URLDownload::connectionDidCancelAuthenticationChallenge(URLConnection&,
                                                             const std::shared_ptr<URLAuthenticationChallenge>& c) {
    if (delegate_) delegate_->downloadDidCancelAuthenticationChallenge(*this, c);
}

void URLDownload::connectionDidReceiveResponse(URLConnection&, const URLResponse& response) {
    auto self = shared_from_this();
    int status = response.isHTTP ? response.statusCode : 200;
    if (status >= 400) {
        if (isResume_ && resumeOffset_ > 0 && status == 416) {
            // The bytes on disk no longer fit the file on the server: fetch all of it again.
            connection_->cancel();
            resumeOffset_ = 0;
            RunLoop::current()->perform([self] {
                if (!self->cancelled_) self->_connect();
            });
            return;
        }
        resumable_ = false;
        if (delegate_) delegate_->downloadDidReceiveResponse(*this, response);
        if (!cancelled_)
            _fail(_error(kURLErrorBadServerResponse, "HTTP status " + std::to_string(status),
                         {{kURLErrorHTTPStatusKey, status}}));
        return;
    }
    auto etag = response.valueForHeaderField("ETag");
    auto modified = response.valueForHeaderField("Last-Modified");
    // A weak ETag cannot go into If-Range.
    if (etag && !str::hasPrefix(*etag, "W/")) validatorField_ = "ETag", validator_ = *etag;
    else if (modified) validatorField_ = "Last-Modified", validator_ = *modified;
    else validatorField_.clear(), validator_.clear();
    resumable_ = !validator_.empty();

    bool continues = isResume_ && resumeOffset_ > 0 && status == 206;
    if (continues && contentRangeStart(response.valueForHeaderField("Content-Range")) != resumeOffset_) {
        _fail(_error(kURLErrorCannotResumeDownload, "the server sent another range than asked"));
        return;
    }
    if (!destination_) {
        _fail(_error(kURLErrorCannotCreateFile, "no destination"));
        return;
    }
    Error openError;
    if (!_openDestination(continues, &openError)) {
        _fail(_error(kURLErrorCannotCreateFile, *destination_ + ": " + strerror(int(openError.code))));
        return;
    }
    bytesOnDisk_ = continues ? resumeOffset_ : 0;
    if (!delegate_) return;
    if (isResume_) delegate_->downloadWillResumeWithResponseFromByte(*this, response, bytesOnDisk_);
    else delegate_->downloadDidReceiveResponse(*this, response);
}

bool URLDownload::_openDestination(bool append, Error* error) {
    // Only a regular file is written, and never through a link: a device, a FIFO or a
    // link planted under the destination's name is refused.
    auto file = fs::File::open(*destination_,
                               {.access = fs::OpenOptions::Access::Write,
                                .create = true,
                                .exclusive = !append && !isResume_ && !allowOverwrite_,
                                .truncate = !append,
                                .followFinalLink = false,
                                .regularFile = true,
                                .mode = 0644},
                               error);
    if (!file) return false;
    if (append) {
        if (!file->truncate(uint64_t(resumeOffset_), error)) return false;
        if (lseek(file->descriptor(), resumeOffset_, SEEK_SET) < 0) {
            setError(error, fs::posixError(errno, *destination_));
            return false;
        }
    }
    destinationFile_ = std::move(*file);
    return true;
}

void URLDownload::_closeDestination() { destinationFile_.close(); }

void URLDownload::connectionDidReceiveData(URLConnection&, std::span<const uint8_t> bytes) {
    if (!destinationFile_) return;
    Error error;
    if (!destinationFile_.writeAll(bytes, &error)) {
        _fail(_error(kURLErrorCannotWriteToFile, *destination_ + ": " + strerror(int(error.code))));
        return;
    }
    bytesOnDisk_ += int64_t(bytes.size());
    if (delegate_) delegate_->downloadDidReceiveDataOfLength(*this, bytes.size());
}

void URLDownload::connectionDidFinishLoading(URLConnection&) {
    auto self = shared_from_this();
    _closeDestination();
    finished_ = true;
    keepAlive_.reset();
    if (delegate_) delegate_->downloadDidFinish(*this);
}

void URLDownload::connectionDidFailWithError(URLConnection&, const Error& error) {
    auto self = shared_from_this();
    bool wroteFile = destinationFile_.isOpen();
    _closeDestination();
    if (wroteFile && deletesFileUponFailure_) {
        unlink(destination_->c_str());
        resumable_ = false;
    }
    keepAlive_.reset();
    if (delegate_) delegate_->downloadDidFailWithError(*this, error);
}

void URLDownload::_fail(const Error& error) {
    if (connection_) connection_->cancel();
    connectionDidFailWithError(*connection_, error);
}

Error URLDownload::_error(int code, const std::string& description, Dictionary extra) const {
    Dictionary info{{kURLErrorFailingURLStringKey, request_.url.absoluteString()}, {kErrorDescriptionKey, description}};
    for (const auto& [key, value] : extra) info.set(key, value);
    return Error{kURLErrorDomain, code, std::move(info)};
}

}  // namespace platform
