// import: filling a store.
#include <cstdio>
#include <memory>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {

void registerImportCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("import", "import a VHD or VHDX chain (base first) or one image as a disk's snapshots");
    static std::string store, disk, format = "auto";
    static std::vector<std::string> images;
    static ImportOptions options;
    addStoreOption(cmd, store, false);
    cmd->add_option("--disk", disk, "disk name")->required();
    cmd->add_option("--format", format,
                    "vhd: fixed, dynamic or differencing VHD files; vhdx: VHDX and AVHDX files; raw: any file, "
                    "taken as the disk's bytes; auto: VHD or VHDX, naming any other format it refuses")
        ->check(CLI::IsMember({"auto", "vhd", "vhdx", "raw"}))
        ->capture_default_str();
    cmd->add_option("--client", options.client, "client name")->capture_default_str();
    addNumberOption<uint64_t>(cmd, "--client-id", options.clientId,
                              "client id (default: the one the store knows the client by, or a new one)", 1);
    cmd->add_option("--subclient", options.subclient, "subclient name")->capture_default_str();
    addNumberOption<uint32_t>(cmd, "--subclient-id", options.subclientId, "subclient id (default: a new one)", 1);
    cmd->add_option("--backupset", options.backupSet, "backup set name")->capture_default_str();
    cmd->add_option("--instance", options.instance, "instance name")->capture_default_str();
    addSizeOption(cmd, "--extent-size", options.extentSize, "extent size of a new disk: a power of two from 64K to 2M", 64 << 10,
                  2 << 20)
        ->check(CLI::Validator(
            [](std::string& text) {
                uint64_t n = 0;
                try {
                    n = parseSize(text);
                } catch (const CLI::ValidationError&) {
                    return std::string();  // the size check says what is wrong with it
                }
                return n & (n - 1) ? text + " is not a power of two: give 64K, 128K, 256K, 512K, 1M or 2M"
                                   : std::string();
            },
            ""))
        ->default_str("1M");
    cmd->add_option("images", images, "VHD or VHDX files base first, or one raw image with --format raw")->required();
    addCommonOptions(cmd);
    addProgressOption(cmd);
    cmd->callback([] {
        applyCommonOptions();
        ImportOptions run = options;
        run.format = format == "raw"    ? ImageFormat::raw
                     : format == "vhd"  ? ImageFormat::vhd
                     : format == "vhdx" ? ImageFormat::vhdx
                                        : ImageFormat::automatic;
        StopSignals stop;
        std::unique_ptr<Progress> progress;
        run.progress = [&progress, &stop](uint64_t done, uint64_t total) {
            // Called as each stretch of an image goes into the store: a stop
            // thrown from here unwinds the import, which removes what it
            // staged; the catalog changes only after the last stretch.
            stop.check();
            if (!progress)
                progress = std::make_unique<Progress>("import " + (images.size() == 1 ? images.front() : disk), total);
            progress->update(done);
        };
        std::vector<std::string> lines;
        try {
            lines = Store::importImages(store, disk, images, run);
        } catch (...) {
            if (!stop.received()) throw;
            progress.reset();
            stop.end("import into " + store + " stopped by " + stop.name() + "; nothing imported");
        }
        if (progress) progress->finish();
        for (const std::string& line : lines) std::printf("%s\n", line.c_str());
    });
}

}  // namespace zxblk
