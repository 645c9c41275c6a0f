#include "Distribution_Layer/Downloader/CWDownload.h"

#include "Distribution_Layer/Downloader/CWFileDownload.h"
#include "Distribution_Layer/Downloader/CWURLDownload.h"
#include "Platform/Exception.h"
#include "Platform/PropertyList.h"

namespace crateworks {

namespace {

[[noreturn]] void notImplemented(const char* operation) {
    throw platform::Exception("Method Not Implemented In Subclass",
                              std::string("This CWDownload Type does not implement: ") + operation);
}

}  // namespace

std::vector<CWDownloadClass>& CWDownload::_downloadClasses() {
    static std::vector<CWDownloadClass> classes{CWFileDownload::downloadClass(), CWURLDownload::downloadClass()};
    return classes;
}

void CWDownload::addDownloadClass(const CWDownloadClass& downloadClass) {
    _downloadClasses().push_back(downloadClass);
}

std::shared_ptr<CWDownload> CWDownload::downloadWithURL(const platform::URL& url, CWDownloadDelegate* delegate) {
    const CWDownloadClass* chosen = nullptr;
    for (const auto& c : _downloadClasses())
        if (c.canDownloadURL(url)) chosen = &c;
    return chosen ? chosen->initWithURL(url, delegate) : nullptr;
}

std::shared_ptr<CWDownload> CWDownload::downloadWithResumeData(const platform::Data& data,
                                                               const std::string& destination,
                                                               CWDownloadDelegate* delegate) {
    const CWDownloadClass* chosen = nullptr;
    for (const auto& c : _downloadClasses())
        if (c.canDownloadWithResumeData(data)) chosen = &c;
    return chosen ? chosen->initWithResumeData(data, destination, delegate) : nullptr;
}

std::shared_ptr<CWDownload> CWDownload::downloadWithResumeData(const platform::Data& data,
                                                               const std::string& destination,
                                                               CWDownloadDelegate* delegate,
                                                               const platform::URL& source) {
    const CWDownloadClass* chosen = nullptr;
    for (const auto& c : _downloadClasses())
        if (c.canDownloadWithResumeData(data)) chosen = &c;
    if (!chosen) return nullptr;
    if (chosen->sourceURLOfResumeData) {
        auto named = chosen->sourceURLOfResumeData(data);
        if (!named || !(*named == source)) return nullptr;
    }
    auto download = chosen->initWithResumeData(data, destination, delegate);
    if (download && !(download->sourceURL() == source)) {
        download->setDelegate(nullptr);
        download->cancel();
        return nullptr;
    }
    return download;
}

void CWDownload::cancel() { notImplemented("cancel"); }
std::string CWDownload::sourcePath() const { notImplemented("sourcePath"); }
platform::URL CWDownload::sourceURL() const { notImplemented("sourceURL"); }
std::optional<platform::Data> CWDownload::resumeData() const { notImplemented("resumeData"); }

void CWDownload::setDestination(const std::string& path, bool allowOverwrite) {
    _dstPath = path;
    _overwriteIfFileExists = allowOverwrite;
}

std::optional<platform::Dictionary> CWDownload::_resumeDictionary(const platform::Data& data, std::string_view type) {
    auto value = platform::plist::readBytes(data);
    const platform::Dictionary* dictionary = value ? value->dictionary() : nullptr;
    if (!dictionary) return std::nullopt;
    const std::string* found = dictionary->findString(kCWResumeDataTypeKey);
    if (!found || *found != type) return std::nullopt;
    return *dictionary;
}

}  // namespace crateworks
