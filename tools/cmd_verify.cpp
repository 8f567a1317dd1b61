// verify: reads every block of every snapshot in a store and compares it
// with the checksums recorded when it was imported.
#include <cstdio>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

// 0: sound, 1: something is damaged, 2: the store cannot be read or the
// command was misused.
int verifyStore(const std::string& store, const std::string& diskName, const std::vector<std::string>& extras) {
    if (!extras.empty()) {
        std::fprintf(stderr, "zxblk verify: unexpected argument '%s'; usage: zxblk verify --store DIR [--disk NAME]\n",
                     extras.front().c_str());
        return 2;
    }
    if (store.empty()) {
        std::fprintf(stderr, "zxblk verify: --store DIR is required\n");
        return 2;
    }
    VerifyResult tally;
    const bool json = commonOptions().json;
    nlohmann::json findings = nlohmann::json::array();
    // Every damaged block gets its own line; a snapshot that cannot be
    // checked at all counts as damaged too.
    auto say = [&](const VerifyFinding& f) {
        if (json) {
            // The disk bytes beside the block: what a salvage of the disk
            // fills with zeros, and what a mapfile of it names.
            nlohmann::json j = {{"disk", f.disk},   {"snapshot", f.snapshot}, {"file", f.file},
                                {"block", f.block}, {"damaged", f.damaged},   {"text", f.text}};
            if (f.block >= 0) j["offset"] = f.offset, j["length"] = f.length;
            findings.push_back(j);
            return;
        }
        std::string who = f.disk + " snapshot " + std::to_string(f.snapshot) + " (" + f.file + ")";
        if (f.block >= 0)
            std::printf("%s: block %lld: %s\n", who.c_str(), static_cast<long long>(f.block), f.text.c_str());
        else
            std::printf("%s: %s\n", who.c_str(), f.text.c_str());
    };
    try {
        tally = Store::open(store).verify(diskName, say);
    } catch (const Error& e) {
        std::fflush(stdout);
        std::fprintf(stderr, "zxblk verify: %s\n", e.what());
        return 2;
    }
    if (json) {
        nlohmann::json out = {{"disks", tally.disks},     {"snapshots", tally.snapshots}, {"blocks", tally.blocks},
                              {"damaged", tally.damaged}, {"unchecked", tally.unchecked}, {"findings", findings}};
        std::printf("%s\n", out.dump(2).c_str());
        return tally.damaged ? 1 : 0;
    }
    std::printf("verified %llu disks, %llu snapshots, %llu blocks: %s%s\n", static_cast<unsigned long long>(tally.disks),
                static_cast<unsigned long long>(tally.snapshots), static_cast<unsigned long long>(tally.blocks),
                tally.damaged ? (std::to_string(tally.damaged) + " damaged").c_str() : "all sound",
                tally.unchecked ? (", " + std::to_string(tally.unchecked) + " snapshots without checksums").c_str() : "");
    return tally.damaged ? 1 : 0;
}

}  // namespace

void registerVerifyCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("verify", "check every block of a store's snapshots against the checksums taken at import");
    static std::string store, disk;
    cmd->add_option("--store", store, "store directory");
    cmd->add_option("--disk", disk, "only this disk");
    // Misuse is answered here, with the exit code a script can tell from damage.
    cmd->allow_extras();
    addCommonOptions(cmd);
    addJsonOption(cmd);
    cmd->callback([cmd] {
        applyCommonOptions();
        int code = verifyStore(store, disk, cmd->remaining());
        std::fflush(stdout);
        std::exit(code);
    });
}

}  // namespace zxblk
