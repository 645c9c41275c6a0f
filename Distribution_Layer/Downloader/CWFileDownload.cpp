#include "Distribution_Layer/Downloader/CWFileDownload.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/File.h"
#include "Platform/FileSystem.h"
#include "Platform/Log.h"
#include "Platform/PropertyList.h"
#include "Platform/ThreadName.h"

namespace crateworks {

namespace {

constexpr size_t kReadSize = 2048;
constexpr const char* kSourcePathKey = "Source Path";
constexpr const char* kDownloadedSoFarKey = "Downloaded So Far";

const char* describe(int code) {
    switch (code) {
    case kCWFileDownloadDestinationExists: return "The destination exists";
    case kCWFileDownloadCannotOpenSource: return "The source could not be opened";
    case kCWFileDownloadCannotOpenDestination: return "The destination could not be opened";
    case kCWFileDownloadReadWouldBlock: return "A read of the source would block";
    case kCWFileDownloadReadFailed: return "The source could not be read";
    default: return "The destination could not be written";
    }
}

}  // namespace

CWDownloadClass CWFileDownload::downloadClass() {
    return CWDownloadClass{
        "CWFileDownload", &CWFileDownload::canDownloadURL, &CWFileDownload::canDownloadWithResumeData,
        [](const platform::URL& url, CWDownloadDelegate* d) -> std::shared_ptr<CWDownload> {
            return initWithURL(url, d);
        },
        [](const platform::Data& data, const std::string& dst, CWDownloadDelegate* d) -> std::shared_ptr<CWDownload> {
            return initWithResumeData(data, dst, d);
        },
        &CWFileDownload::sourceURLOfResumeData};
}

std::optional<platform::URL> CWFileDownload::sourceURLOfResumeData(const platform::Data& data) {
    auto dictionary = _resumeDictionary(data, kCWFileDownloadResumeType);
    const std::string* source = dictionary ? dictionary->findString(kSourcePathKey) : nullptr;
    if (!source || source->empty()) return std::nullopt;
    return platform::URL::fileURL(*source);
}

bool CWFileDownload::canDownloadWithResumeData(const platform::Data& data) {
    return _resumeDictionary(data, kCWFileDownloadResumeType).has_value();
}

std::shared_ptr<CWFileDownload> CWFileDownload::initWithURL(const platform::URL& url, CWDownloadDelegate* delegate) {
    auto download = std::shared_ptr<CWFileDownload>(new CWFileDownload(delegate));
    download->_srcPath = url.path();
    return download;
}

std::shared_ptr<CWFileDownload> CWFileDownload::initWithResumeData(const platform::Data& data,
                                                                   const std::string& destination,
                                                                   CWDownloadDelegate* delegate) {
    auto dictionary = _resumeDictionary(data, kCWFileDownloadResumeType);
    if (!dictionary) return nullptr;
    const std::string* source = dictionary->findString(kSourcePathKey);
    const platform::Value* soFar = dictionary->find(kDownloadedSoFarKey);
    if (!source || source->empty() || destination.empty() || !soFar || !soFar->integer()) return nullptr;
    struct stat st {};
    if (stat(destination.c_str(), &st) != 0 || int64_t(st.st_size) != *soFar->integer()) return nullptr;
    auto download = std::shared_ptr<CWFileDownload>(new CWFileDownload(delegate));
    download->_srcPath = *source;
    download->_dstPath = destination;
    download->_overwriteIfFileExists = false;
    download->_isResume = true;
    download->_bytesDownloaded = *soFar->integer();
    download->_startCopyThread();
    return download;
}

CWFileDownload::~CWFileDownload() {
    if (!_fileReadThread.joinable()) return;
    // The copy thread may hold the last reference itself.
    if (_fileReadThread.get_id() == std::this_thread::get_id()) _fileReadThread.detach();
    else _fileReadThread.join();
}

void CWFileDownload::setDestination(const std::string& path, bool allowOverwrite) {
    CWDownload::setDestination(path, allowOverwrite);
    if (_srcPath.empty() || !_dstPath || _fileReadThread.joinable()) return;
    _isResume = false;
    _startCopyThread();
}

void CWFileDownload::_startCopyThread() {
    _runFileReadThread = true;
    _threadFinished = false;
    auto self = std::static_pointer_cast<CWFileDownload>(shared_from_this());
    auto loop = platform::RunLoop::current();
    _fileReadThread = std::thread([self, loop] {
        platform::thread::setCurrentName(kCWFileDownloadThreadName);
        self->_fileCopyThread(loop);
        self->_threadFinished = true;
        loop->wakeUp();
    });
}

void CWFileDownload::cancel() {
    _runFileReadThread = false;
    while (!_threadFinished) platform::RunLoop::current()->runFor(0.1);
    if (_fileReadThread.joinable()) _fileReadThread.join();
}

std::optional<platform::Data> CWFileDownload::resumeData() const {
    platform::Dictionary d{{kCWResumeDataTypeKey, kCWFileDownloadResumeType},
                           {kSourcePathKey, _srcPath},
                           {kDownloadedSoFarKey, int64_t(_bytesDownloaded)}};
    return platform::plist::toBinary(platform::Value(std::move(d)));
}

void CWFileDownload::_send(const std::shared_ptr<platform::RunLoop>& loop, CallbackList callback) {
    loop->perform([callback = std::move(callback)] {
        std::get<std::shared_ptr<CWFileDownload>>(callback[1])->_currentThreadCallback(callback);
    });
}

void CWFileDownload::_fail(const std::shared_ptr<platform::RunLoop>& loop, int code, const std::string& path,
                           int errorNumber, const platform::Error* cause) {
    std::string why = cause ? cause->description() : path;
    platform::Dictionary info{{platform::kErrorDescriptionKey, fmt::format("{}: {}", describe(code), why)},
                              {"path", path}};
    if (code != kCWFileDownloadDestinationExists && code != kCWFileDownloadShortWrite)
        info.set("errno", errorNumber);
    auto self = std::static_pointer_cast<CWFileDownload>(shared_from_this());
    _send(loop, {std::string("download:didFailWithError:"), self,
                 platform::Error{kCWFileDownloadErrorDomain, code, std::move(info)}});
}

void CWFileDownload::_fileCopyThread(const std::shared_ptr<platform::RunLoop>& loop) {
    auto self = std::static_pointer_cast<CWFileDownload>(shared_from_this());
    const std::string dst = *_dstPath;
    _send(loop, {std::string("downloadDidBegin:"), self});
    if (_isResume) _send(loop, {std::string("download:willResumeFromByte:"), self, int64_t(_bytesDownloaded)});
    if (!_overwriteIfFileExists && !_isResume && platform::fs::existsNoFollow(dst)) {
        _fail(loop, kCWFileDownloadDestinationExists, dst);
        return;
    }
    platform::Error error;
    // Only a regular file is copied: a FIFO would end at once as if empty, a device
    // might never end.
    auto src = platform::fs::File::open(_srcPath, {.nonBlocking = true, .regularFile = true}, &error);
    if (!src) {
        _fail(loop, kCWFileDownloadCannotOpenSource, _srcPath, int(error.code), &error);
        return;
    }
    auto out = platform::fs::File::open(dst,
                                        {.access = platform::fs::OpenOptions::Access::Write,
                                         .create = true,
                                         .truncate = _overwriteIfFileExists,
                                         .append = _isResume,
                                         .followFinalLink = false,
                                         .regularFile = true,
                                         .mode = 0644},
                                        &error);
    if (!out) {
        _fail(loop, kCWFileDownloadCannotOpenDestination, dst, int(error.code), &error);
        if (_deleteFileOnFailure) unlink(dst.c_str());
        return;
    }
    uint8_t buffer[kReadSize];
    while (_runFileReadThread) {
        auto n = src->read(buffer, &error);
        if (n && *n == 0) {
            if (_runFileReadThread) _send(loop, {std::string("downloadDidFinish:"), self});
            break;
        }
        if (!n) {
            _fail(loop, error.code == EAGAIN ? kCWFileDownloadReadWouldBlock : kCWFileDownloadReadFailed, _srcPath,
                  int(error.code));
            if (_deleteFileOnFailure) unlink(dst.c_str());
            break;
        }
        if (!out->writeAll({buffer, *n})) {
            _fail(loop, kCWFileDownloadShortWrite, dst);
            if (_deleteFileOnFailure) unlink(dst.c_str());
            break;
        }
        _bytesDownloaded += int64_t(*n);
        _send(loop, {std::string("download:didReceiveDataOfLength:"), self, int64_t(*n)});
    }
}

void CWFileDownload::_currentThreadCallback(const CallbackList& callback) {
    const std::string* name = callback.empty() ? nullptr : std::get_if<std::string>(&callback[0]);
    if (!name) return;
    if (!_delegate || !_delegate->respondsToSelector(*name)) return;
    auto* value = callback.size() > 2 ? std::get_if<int64_t>(&callback[2]) : nullptr;
    auto* error = callback.size() > 2 ? std::get_if<platform::Error>(&callback[2]) : nullptr;
    size_t count = callback.size();
    if (*name == "download:didReceiveDataOfLength:" && count == 3 && value) {
        if (_delegate) _delegate->downloadDidReceiveDataOfLength(*this, uint64_t(*value));
    } else if (*name == "downloadDidBegin:" && count == 2) {
        if (_delegate) _delegate->downloadDidBegin(*this);
    } else if (*name == "downloadDidFinish:" && count == 2) {
        if (_delegate) _delegate->downloadDidFinish(*this);
    } else if (*name == "download:willResumeFromByte:" && count == 3 && value) {
        if (_delegate) _delegate->downloadWillResumeFromByte(*this, *value);
    } else if (*name == "download:didFailWithError:" && count == 3 && error) {
        if (_delegate) _delegate->downloadDidFailWithError(*this, *error);
    } else {
        platform::systemLog(platform::kInstallerFacility | platform::kLogWarning,
                            "Unknown remoted callback gotten in CWFileDownload: " + *name);
    }
}

}  // namespace crateworks
