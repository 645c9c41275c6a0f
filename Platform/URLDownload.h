// Downloads one request into a file, on the creating thread's run loop.
//
// The body is written to the destination as it arrives. An answer with an HTTP status
// of 400 or more writes nothing and fails the download. A download that stops early
// (cut off, cancelled) keeps what it wrote and can give resume data: an opaque blob
// naming the URL, the validator the server sent (ETag, else Last-Modified) and the
// bytes on disk. A download made from that blob asks for the rest with Range and
// If-Range; when the server answers with the whole body instead (the validator
// changed), the file is written again from byte 0.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Platform/File.h"
#include "Platform/URLConnection.h"
#include "Platform/Value.h"

namespace platform {

class URLDownload;

// Every callback has a default: requests stand, challenges go on without a credential,
// everything else is ignored.
class URLDownloadDelegate {
public:
    virtual ~URLDownloadDelegate() = default;
    virtual void downloadDidBegin(URLDownload&) {}
    // The request to send, or absent to refuse it (the download then fails as cancelled).
    virtual std::optional<URLRequest> downloadWillSendRequestRedirectResponse(
        URLDownload&, URLRequest request, const std::optional<URLResponse>& redirectResponse) {
        (void)redirectResponse;
        return request;
    }
    virtual void downloadDidReceiveAuthenticationChallenge(URLDownload&,
                                                           const std::shared_ptr<URLAuthenticationChallenge>& c) {
        c->continueWithoutCredential();
    }
    virtual void downloadDidCancelAuthenticationChallenge(URLDownload&,
                                                          const std::shared_ptr<URLAuthenticationChallenge>&) {}
    // A fresh download's response (and any answer of 400 or more).
    virtual void downloadDidReceiveResponse(URLDownload&, const URLResponse&) {}
    // A resumed download's response: it continues from `startingByte`, 0 when it starts over.
    virtual void downloadWillResumeWithResponseFromByte(URLDownload&, const URLResponse&, int64_t /*startingByte*/) {}
    virtual void downloadDidReceiveDataOfLength(URLDownload&, uint64_t /*length*/) {}
    virtual void downloadDidFinish(URLDownload&) {}
    virtual void downloadDidFailWithError(URLDownload&, const Error&) {}
};

class URLDownload : public URLConnectionDelegate, public std::enable_shared_from_this<URLDownload> {
public:
    // A download of the request; it starts on the next pass of the calling thread's run
    // loop, so the destination can be set first. Null for a URL that cannot be loaded.
    static std::shared_ptr<URLDownload> initWithRequest(const URLRequest& request, URLDownloadDelegate* delegate,
                                                        URLTransferOptions options = {});
    // A download continuing the one the resume data came from into the file at `path`.
    // Null when the blob is not resume data.
    static std::shared_ptr<URLDownload> initWithResumeData(const Data& resumeData, URLDownloadDelegate* delegate,
                                                           const std::string& path, URLTransferOptions options = {});
    ~URLDownload() override;

    const URLRequest& request() const { return request_; }
    // Where the body goes; without overwriting, an existing file fails a fresh download.
    // Only before the response has come.
    void setDestination(const std::string& path, bool allowOverwrite);
    const std::optional<std::string>& destination() const { return destination_; }
    // Whether a failed download deletes what it wrote (true unless changed).
    void setDeletesFileUponFailure(bool deletes) { deletesFileUponFailure_ = deletes; }
    bool deletesFileUponFailure() const { return deletesFileUponFailure_; }

    // Stops the download; what was written stays for resume data. No callback follows.
    void cancel();
    // The resume blob, or absent when there is nothing to resume against: no validator,
    // an HTTP error answer, a file deleted on failure, or no response yet.
    std::optional<Data> resumeData() const;
    // Bytes in the destination file from the start of the body.
    int64_t bytesOnDisk() const { return bytesOnDisk_; }

    // The connection's callbacks.
    std::optional<URLRequest> connectionWillSendRequestRedirectResponse(
        URLConnection&, URLRequest request, const std::optional<URLResponse>& redirectResponse) override;
    void connectionDidReceiveAuthenticationChallenge(URLConnection&,
                                                     const std::shared_ptr<URLAuthenticationChallenge>&) override;
    void connectionDidCancelAuthenticationChallenge(URLConnection&,
                                                    const std::shared_ptr<URLAuthenticationChallenge>&) override;
    void connectionDidReceiveResponse(URLConnection&, const URLResponse& response) override;
    void connectionDidReceiveData(URLConnection&, std::span<const uint8_t> bytes) override;
    void connectionDidFinishLoading(URLConnection&) override;
    void connectionDidFailWithError(URLConnection&, const Error& error) override;

private:
    URLDownload(const URLRequest& request, URLDownloadDelegate* delegate, URLTransferOptions options);
    void _start();
    void _connect();
    bool _openDestination(bool append, Error* error);
    void _closeDestination();
    void _fail(const Error& error);
    Error _error(int code, const std::string& description, Dictionary extra = {}) const;

    URLRequest request_;
    URLDownloadDelegate* delegate_;
    URLTransferOptions options_;
    std::shared_ptr<URLConnection> connection_;
    std::shared_ptr<URLDownload> keepAlive_;
    std::optional<std::string> destination_;
    bool allowOverwrite_ = false;
    bool deletesFileUponFailure_ = true;
    bool cancelled_ = false;
    bool finished_ = false;
    // Resuming: the offset asked for, and the validator the request sends with it.
    int64_t resumeOffset_ = 0;
    bool isResume_ = false;
    bool resumable_ = false;
    std::string validatorField_, validator_;
    fs::File destinationFile_;
    int64_t bytesOnDisk_ = 0;
};

}  // namespace platform
