// One source fetched into one destination file, reporting to a delegate.
//
// CWDownload is the abstract face and the factory: it picks a concrete class by URL or
// by resume data from a class-wide list (the last class that accepts wins), first made
// of CWFileDownload and CWURLDownload and grown with addDownloadClass().
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Distribution_Layer/Downloader/CWDownloadDelegate.h"
#include "Platform/URL.h"
#include "Platform/Value.h"

namespace crateworks {

// A concrete download class as the factory sees it.
struct CWDownloadClass {
    std::string name;
    bool (*canDownloadURL)(const platform::URL& url);
    bool (*canDownloadWithResumeData)(const platform::Data& data);
    std::shared_ptr<CWDownload> (*initWithURL)(const platform::URL& url, CWDownloadDelegate* delegate);
    std::shared_ptr<CWDownload> (*initWithResumeData)(const platform::Data& data, const std::string& destination,
                                                      CWDownloadDelegate* delegate);
    // The source that resume data names, for a class whose resumed download starts work
    // at once; null for a class that does nothing before it is asked to.
    std::optional<platform::URL> (*sourceURLOfResumeData)(const platform::Data& data) = nullptr;
};

// Key and values of the "Resume Data Type" entry every class's resume data carries.
inline constexpr const char* kCWResumeDataTypeKey = "Resume Data Type";

class CWDownload : public std::enable_shared_from_this<CWDownload> {
public:
    virtual ~CWDownload() = default;
    CWDownload(const CWDownload&) = delete;
    CWDownload& operator=(const CWDownload&) = delete;

    static std::vector<CWDownloadClass>& _downloadClasses();
    static void addDownloadClass(const CWDownloadClass& downloadClass);
    static bool canDownloadURL(const platform::URL&) { return false; }
    static bool canDownloadWithResumeData(const platform::Data&) { return false; }
    // A download of the last class that takes the URL; null when none does.
    static std::shared_ptr<CWDownload> downloadWithURL(const platform::URL& url, CWDownloadDelegate* delegate);
    // A download of the last class that takes the resume data, continuing into `destination`.
    static std::shared_ptr<CWDownload> downloadWithResumeData(const platform::Data& data,
                                                              const std::string& destination,
                                                              CWDownloadDelegate* delegate);
    // The same, for resume data found beside a partial file of `source`: null when the data
    // names another source. Resume data is only as trustworthy as the folder it lies in, so
    // a class that would start work at once is judged before it is made, and the others
    // by the download's source once made (that download is cancelled).
    static std::shared_ptr<CWDownload> downloadWithResumeData(const platform::Data& data,
                                                              const std::string& destination,
                                                              CWDownloadDelegate* delegate,
                                                              const platform::URL& source);

    // Abstract: each raises "Method Not Implemented In Subclass".
    virtual void cancel();
    virtual std::string sourcePath() const;
    virtual platform::URL sourceURL() const;
    // A binary property list, or absent when there is nothing to resume from.
    virtual std::optional<platform::Data> resumeData() const;

    virtual void setDestination(const std::string& path, bool allowOverwrite);
    virtual void setDeletesFileUponFailure(bool deletes) { _deleteFileOnFailure = deletes; }
    virtual bool deletesFileUponFailure() const { return _deleteFileOnFailure; }
    virtual bool validatesDuringDownload() const { return false; }

    CWDownloadDelegate* delegate() const { return _delegate; }
    // Sets the delegate after the fact, for a download made from resume data.
    void setDelegate(CWDownloadDelegate* delegate) { _delegate = delegate; }
    const std::optional<std::string>& destination() const { return _dstPath; }

protected:
    explicit CWDownload(CWDownloadDelegate* delegate) : _delegate(delegate) {}
    // The resume dictionary when `data` is a property list of the given type, else absent.
    static std::optional<platform::Dictionary> _resumeDictionary(const platform::Data& data, std::string_view type);

    CWDownloadDelegate* _delegate;
    std::optional<std::string> _dstPath;
    bool _overwriteIfFileExists = false;
    bool _deleteFileOnFailure = false;
};

}  // namespace crateworks
