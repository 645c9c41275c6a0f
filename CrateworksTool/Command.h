// The subcommands of the crateworks inspection tool. Each command file adds its own
// words, options and action to the app; main.cpp parses and runs the one chosen.
#pragma once

#include "CommandLine/Parser.h"

namespace crateworks {

void addBomCommand(CLI::App& app);
void addReceiptsCommand(CLI::App& app);
void addXarCommand(CLI::App& app);
void addFolderCommand(CLI::App& app);
void addTrustCommand(CLI::App& app);
void addVerifyCommand(CLI::App& app);
void addDownloadCommand(CLI::App& app);
void addFetchCommand(CLI::App& app);

}  // namespace crateworks
