#include "Distribution_Layer/Downloader/CWDownloadDelegate.h"

#include <array>

namespace crateworks {

bool CWDownloadDelegate::respondsToSelector(std::string_view selector) const {
    static constexpr std::array<std::string_view, 10> implemented = {
        "downloadDidBegin:",
        "download:willResumeFromByte:",
        "download:didReceiveDataOfLength:",
        "download:didCheckDataOfLength:",
        "downloadDidFinish:",
        "download:didFailWithError:",
        "download:willSendRequest:redirectResponse:",
        "download:didReceiveResponse:",
        "download:didReceiveAuthenticationChallenge:",
        "download:didCancelAuthenticationChallenge:",
    };
    for (auto name : implemented)
        if (name == selector) return true;
    return false;
}

}  // namespace crateworks
