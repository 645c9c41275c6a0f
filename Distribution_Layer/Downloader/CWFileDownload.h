// Copies a local file into the destination on a thread of its own, 2048 bytes at a
// time, telling the delegate on the creating thread (which must run its run loop).
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Platform/Error.h"
#include "Platform/RunLoop.h"

namespace crateworks {

inline constexpr const char* kCWFileDownloadErrorDomain = "com.quarn.Crateworks.CWFileDownload";
inline constexpr const char* kCWFileDownloadThreadName = "com.quarn.Crateworks.CWFileDownload";
inline constexpr const char* kCWFileDownloadResumeType = "CWFileDownload";

// Codes of kCWFileDownloadErrorDomain.
enum CWFileDownloadError : int {
    kCWFileDownloadDestinationExists = 1,
    kCWFileDownloadCannotOpenSource = 2,
    kCWFileDownloadCannotOpenDestination = 3,
    kCWFileDownloadReadWouldBlock = 4,
    kCWFileDownloadReadFailed = 5,
    kCWFileDownloadShortWrite = 6,
};

class CWFileDownload : public CWDownload {
public:
    // A callback sent from the copy thread: its selector, the download, then the value.
    using CallbackItem = std::variant<std::string, std::shared_ptr<CWFileDownload>, int64_t, platform::Error>;
    using CallbackList = std::vector<CallbackItem>;

    static CWDownloadClass downloadClass();
    static bool canDownloadURL(const platform::URL& url) { return url.isFileURL(); }
    static bool canDownloadWithResumeData(const platform::Data& data);
    // The file URL of the "Source Path" that this class's resume data names.
    static std::optional<platform::URL> sourceURLOfResumeData(const platform::Data& data);

    // Keeps the URL's path; the copy starts once the destination is set.
    static std::shared_ptr<CWFileDownload> initWithURL(const platform::URL& url, CWDownloadDelegate* delegate);
    // Continues a copy: null unless the data is this class's resume data naming a source,
    // a destination is given, and the destination's size equals "Downloaded So Far".
    static std::shared_ptr<CWFileDownload> initWithResumeData(const platform::Data& data,
                                                              const std::string& destination,
                                                              CWDownloadDelegate* delegate);
    ~CWFileDownload() override;

    void setDestination(const std::string& path, bool allowOverwrite) override;
    // Stops the copy and runs the current run loop in 0.1 s steps until the copy thread
    // has ended, so that callbacks already sent still arrive.
    void cancel() override;
    std::string sourcePath() const override { return _srcPath; }
    platform::URL sourceURL() const override { return platform::URL::fileURL(_srcPath); }
    std::optional<platform::Data> resumeData() const override;

    // Turns a callback list back into the delegate call (on the creating thread).
    void _currentThreadCallback(const CallbackList& callback);

private:
    explicit CWFileDownload(CWDownloadDelegate* delegate) : CWDownload(delegate) {}
    void _startCopyThread();
    void _fileCopyThread(const std::shared_ptr<platform::RunLoop>& creatingLoop);
    void _send(const std::shared_ptr<platform::RunLoop>& loop, CallbackList callback);
    // `errorNumber` is the errno behind the failure, kept in the user info except for
    // the two codes that have none.
    // `cause`, when given, says why in place of the bare path ("path: is a FIFO, not a
    // regular file").
    void _fail(const std::shared_ptr<platform::RunLoop>& loop, int code, const std::string& path,
               int errorNumber = 0, const platform::Error* cause = nullptr);

    std::string _srcPath;
    bool _isResume = false;
    std::atomic<int64_t> _bytesDownloaded{0};
    std::atomic<bool> _runFileReadThread{false};
    std::atomic<bool> _threadFinished{true};
    std::thread _fileReadThread;
};

}  // namespace crateworks
