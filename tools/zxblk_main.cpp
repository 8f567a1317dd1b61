// zxblk: put backed-up disks into a store and read them back through the
// provider, extent by extent.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "tools/commands.h"

namespace zxblk {

CommonOptions& commonOptions() {
    static CommonOptions options;
    return options;
}

void addCommonOptions(CLI::App* command) {
    command->add_option("--config", commonOptions().config, "INI configuration file (sets ZXBLK_CONFIG)");
    command->add_option_function<int>(
        "--log-level", [](const int& level) { commonOptions().logLevel = level, commonOptions().logLevelSet = true; },
        "log lines up to this level to standard error (default 0: errors and extent summaries)");
}

void applyCommonOptions() {
    CommonOptions& o = commonOptions();
    if (!o.config.empty()) {
        setenv("ZXBLK_CONFIG", o.config.c_str(), 1);
        ZXPlatformInfo::ReloadForTests();
    }
    if (o.logLevelSet) LogSink::setLevel(o.logLevel);
}

}  // namespace zxblk

int main(int argc, char** argv) {
    CLI::App app{"zxblk: present backed-up virtual disks without restoring them first"};
    app.require_subcommand(1);
    zxblk::registerImportCommand(app);
    zxblk::registerListCommand(app);
    zxblk::registerExportCommand(app);
    zxblk::registerReadCommand(app);
    zxblk::registerMountCommand(app);
    zxblk::registerIndexCommand(app);
    zxblk::registerDemoCommand(app);
    zxblk::registerVerifyCommand(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zxblk: %s\n", e.what());
        return 1;
    }
    return 0;
}
