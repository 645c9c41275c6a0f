// Fuzzes the resume state kept beside a partial download (DEST.partialState): the
// bytes are handed to the download factory as the downloader does, with a partial
// file of sixteen bytes in place. A download it makes is asked for its source and its
// own resume state, which must be taken back, and is then dropped unstarted.
//
// The local-copy class continues by starting a copy of the source the state names, so
// here it only judges whether it would take the state; the network classes make their
// transfer without starting it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "Distribution_Layer/Downloader/CWDownload.h"
#include "Distribution_Layer/Downloader/CWFileDownload.h"
#include "Distribution_Layer/Downloader/CWSecureURLDownload.h"
#include "FuzzSupport.h"
#include "Platform/RunLoop.h"

namespace cw = crateworks;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzsupport::quietLogs();
    auto& classes = cw::CWDownload::_downloadClasses();
    std::erase_if(classes, [](const cw::CWDownloadClass& c) { return c.name == cw::CWFileDownload::downloadClass().name; });
    cw::CWDownload::addDownloadClass(cw::CWSecureURLDownload::downloadClass());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzsupport::Scratch scratch;
    if (!scratch.ok() || !scratch.write("Example.pkg.partial", "0123456789abcdef")) return 0;
    platform::Data state(data, data + size);
    (void)cw::CWFileDownload::canDownloadWithResumeData(state);
    std::string partial = scratch / "Example.pkg.partial";
    if (auto download = cw::CWDownload::downloadWithResumeData(state, partial, nullptr)) {
        (void)download->sourceURL().absoluteString();
        (void)download->destination();
        if (auto again = download->resumeData()) {
            // What a download writes as its state must continue it.
            auto resumed = cw::CWDownload::downloadWithResumeData(*again, partial, nullptr);
            if (!resumed) abort();
            resumed->cancel();
        }
        download->cancel();
    }
    // The transfers were only scheduled; their starts find them gone.
    platform::RunLoop::current()->runFor(0);
    return 0;
}
