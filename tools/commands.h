// The zxblk tool's subcommands. Each file registers one with the app.
#pragma once
#include <CLI/CLI.hpp>
#include <string>

namespace zxblk {

// Options every subcommand takes.
struct CommonOptions {
    std::string config;
    int logLevel = 0;
    bool logLevelSet = false;
};
CommonOptions& commonOptions();
// Applies --config and --log-level to the process.
void applyCommonOptions();
void addCommonOptions(CLI::App* command);

void registerImportCommand(CLI::App& app);
void registerListCommand(CLI::App& app);
void registerExportCommand(CLI::App& app);
void registerReadCommand(CLI::App& app);
void registerMountCommand(CLI::App& app);
void registerIndexCommand(CLI::App& app);
void registerDemoCommand(CLI::App& app);
void registerVerifyCommand(CLI::App& app);

}  // namespace zxblk
