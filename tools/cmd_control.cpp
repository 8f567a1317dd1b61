// zxblk control: tells a running `zxblk serve` (or the server of a `zxblk
// boot`) what a mount's .control file tells a mount: that the disks are
// mounted or the guest is up (mount-complete: the extents recalled until
// then go to the index as mount extents), the bounds of a metadata phase,
// or to recall the recorded mount extents now (prefetch).
#include <cstdio>

#include "commands.h"
#include "serve_net.h"

namespace zxblk {

void registerControlCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("control", "tell a running zxblk serve that its disks are mounted (the guest is "
                                              "up), or of a metadata phase");
    static std::string socket, command, disk;
    cmd->add_option("socket", socket,
                    "the server's NBD socket (or its URI) as zxblk serve printed it, or its control socket")
        ->required();
    cmd->add_option("command", command,
                    "mount-complete, metadata-begin, metadata-end, or prefetch (recall the recorded mount extents "
                    "now)")
        ->required()
        ->check(CLI::IsMember({"mount-complete", "metadata-begin", "metadata-end", "prefetch"}));
    cmd->add_option("--disk", disk, "only this export (a disk's name; default: every disk the server has open)");
    cmd->footer("Prints what the server did; a refusal is one line and exit 1.");
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        std::string said = sendControl(findControlSocket(socket), command + (disk.empty() ? "" : " " + disk));
        if (!quiet() && !said.empty()) std::printf("%s\n", said.c_str());
    });
}

}  // namespace zxblk
