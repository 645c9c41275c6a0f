// One package waiting in, or fetched by, the download queue: its reference, where it
// goes, the transfer that fetches it, and how much of it has been fetched and checked.
//
// Progress is kept in weighted bytes: a downloaded byte counts 0.9 and a checked byte
// 0.1, so a package is worth its size once fetched and checked. The increment is the
// weighted progress not yet folded into the queue's percentage. The three counters
// are guarded by the element's own lock, since checks count from worker threads.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Distribution_Layer/Product/CWPackageReference.h"

namespace crateworks {

class CWDownloaderQueueElement {
public:
    static std::shared_ptr<CWDownloaderQueueElement> initWithPackageReference(const CWPackageReference& reference,
                                                                              const std::string& destination);

    const std::shared_ptr<CWPackageReference>& packageReference() const { return _packageRef; }
    const std::string& destination() const { return _destination; }
    // The file the transfer writes: destination + ".partial".
    std::string partialPath() const { return _destination + ".partial"; }
    // Where a stopped transfer's resume data is kept: destination + ".partialState".
    std::string resumeDataPath() const { return _destination + ".partialState"; }
    // The reference's absolute URL, the element's key among the active ones.
    const std::string& URLString() const { return _packageRef->URL().absoluteString(); }

    const std::shared_ptr<CWDownload>& download() const { return _download; }
    void setDownload(std::shared_ptr<CWDownload> download) { _download = std::move(download); }

    uint64_t downloadedBytes() const;
    uint64_t checksummedBytes() const;
    void _resetProgress();
    void _addToDownloadedBytes(uint64_t count);
    void _addToChecksummedBytes(uint64_t count);
    // Weighted bytes already folded into the queue's percentage.
    uint64_t _reportedProgress() const;
    uint64_t _getAndClearProgressIncrement();

    // "<CWDownloaderQueueElement URL -> destination>", for log lines.
    std::string description() const;

    CWDownloaderQueueElement(std::shared_ptr<CWPackageReference> reference, std::string destination);

private:
    std::shared_ptr<CWPackageReference> _packageRef;
    std::string _destination;
    std::shared_ptr<CWDownload> _download;
    mutable std::mutex _lock;
    uint64_t _downloadedBytes = 0;
    uint64_t _checksummedBytes = 0;
    uint64_t _progressIncrement = 0;
};

}  // namespace crateworks
