// The zxblk tool's subcommands. Each file registers one with the app.
#pragma once
#include <CLI/CLI.hpp>
#include <string>

#include "cli_util.h"

namespace zxblk {

// Options every subcommand takes.
struct CommonOptions {
    std::string config;
    int logLevel = 0;
    bool logLevelSet = false;
    int verbosity = 0;      // -v counts up, -q down
    bool progress = false;  // -p
    bool json = false;      // --json, where a command takes it
};
CommonOptions& commonOptions();
// Applies --config, --log-level and -v/-q to the process.
void applyCommonOptions();
void addCommonOptions(CLI::App* command);
// -p/--progress, for the commands that report progress.
void addProgressOption(CLI::App* command);
// --json, for the commands that can print their result as JSON.
void addJsonOption(CLI::App* command);

void registerImportCommand(CLI::App& app);
void registerListCommand(CLI::App& app);
void registerExportCommand(CLI::App& app);
void registerReadCommand(CLI::App& app);
void registerMountCommand(CLI::App& app);
void registerIndexCommand(CLI::App& app);
void registerDemoCommand(CLI::App& app);
void registerVerifyCommand(CLI::App& app);
void registerCacheCommand(CLI::App& app);
void registerStatsCommand(CLI::App& app);
void registerServeCommand(CLI::App& app);
void registerBootCommand(CLI::App& app);
void registerControlCommand(CLI::App& app);

}  // namespace zxblk
