// import and list: filling a store and looking into it.
#include <cstdio>

#include "store/catalog.h"
#include "store/importer.h"
#include "tools/commands.h"

namespace zxblk {

void registerImportCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("import", "import a VHD chain (base first) or one image as a disk's snapshots");
    static std::string store, disk;
    static std::vector<std::string> images;
    static ImportOptions options;
    cmd->add_option("--store", store, "store directory (made if missing)")->required();
    cmd->add_option("--disk", disk, "disk name")->required();
    cmd->add_option("--client", options.client, "client name")->capture_default_str();
    cmd->add_option("--client-id", options.clientId, "client id")->capture_default_str();
    cmd->add_option("--subclient", options.subclient, "subclient name")->capture_default_str();
    cmd->add_option("--subclient-id", options.subclientId, "subclient id (default: a new one)");
    cmd->add_option("--backupset", options.backupSet, "backup set name")->capture_default_str();
    cmd->add_option("--instance", options.instance, "instance name")->capture_default_str();
    cmd->add_option("--extent-size", options.extentSize, "extent size in bytes of a new disk (64 KiB to 2 MiB)")
        ->capture_default_str();
    cmd->add_option("images", images, "VHD files base first, or one raw image")->required();
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        for (const std::string& line : importImages(store, disk, images, options)) std::printf("%s\n", line.c_str());
    });
}

void registerListCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("list", "list the disks of a store and their snapshots");
    static std::string store, disk;
    cmd->add_option("--store", store, "store directory")->required()->check(CLI::ExistingDirectory);
    cmd->add_option("--disk", disk, "only this disk");
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        Catalog catalog = Catalog::load(store);
        if (!disk.empty() && !catalog.findDisk(disk)) throw StoreError(store + ": no disk named '" + disk + "'");
        for (const DiskRecord& d : catalog.disks) {
            if (!disk.empty() && d.name != disk) continue;
            const SubclientRecord& s = catalog.subclients.at(d.subclientId);
            std::printf("%s  %llu bytes  extent %lld  subclient %s (%u)\n", d.name.c_str(),
                        static_cast<unsigned long long>(d.size), static_cast<long long>(d.extentSize), s.name.c_str(),
                        s.id);
            for (size_t i = 0; i < d.copies.size(); ++i) {
                const CopyRecord& c = d.copies[i];
                std::printf("  snapshot %zu  type %u  afid %llu  %s  %s  %s\n", i, c.type,
                            static_cast<unsigned long long>(c.archiveFileId), c.file.c_str(), c.browsePath.c_str(),
                            c.importedAt.c_str());
            }
        }
    });
}

}  // namespace zxblk
