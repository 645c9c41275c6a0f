// crateworks: inspects and makes the package library's files (BOM files, receipts,
// archives, signatures) and downloads packages, from the command line.
#include "CommandLine/Parser.h"
#include "CommandLine/StandardOutput.h"
#include "CrateworksTool/Command.h"

int main(int argc, char** argv) {
    auto app = commandline::makeApp("crateworks", "Inspects, makes, signs, judges and downloads packages.");
    crateworks::addBomCommand(*app);
    crateworks::addReceiptsCommand(*app);
    crateworks::addXarCommand(*app);
    crateworks::addFolderCommand(*app);
    crateworks::addVerifyCommand(*app);
    crateworks::addTrustCommand(*app);
    crateworks::addDownloadCommand(*app);
    crateworks::addFetchCommand(*app);
    int status = 0;
    auto action = commandline::parse(*app, argc, argv, &status);
    if (!action) return status;
    return commandline::StandardOutput::shared().finish((*action)(), "crateworks");
}
