// When a booted VM counts as up, and what zxblk boot does then: the disks'
// server is told that their mount is complete, so that the extents recalled
// until then go to the index as mount extents, which the next boot recalls
// ahead of the guest (prefetch, on by default once they are there).
#pragma once
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "presented.h"

namespace zxblk {

struct ReadyOptions {
    // A login prompt, or the shell prompt of a console that logs in by itself.
    std::string pattern = "login: $|[#$] $";
    unsigned after = 0;  // seconds after qemu starts; 0: the pattern alone
    int prefetch = -1;   // -1: when the index holds mount extents of a disk; 0: never; 1: always
};

// --ready-pattern, --ready-after, --prefetch and --no-prefetch.
void addReadyOptions(CLI::App* cmd, ReadyOptions& options);

// Settles options.prefetch for these disks from the index; the line that
// says how many mount extents the server will recall ahead, or "".
std::string settlePrefetch(ReadyOptions& options, const std::string& store, const std::vector<PresentedDisk>& disks);
// The plugin's arguments for the control channel and the prefetch.
std::vector<std::string> readyServerArgs(const ReadyOptions& options, const std::string& controlSocket);

// Watches the console for the pattern (and the clock for --ready-after);
// the first time either says the VM is up, tells the server and says so in
// one line. `record`: false where the mount extents would be wrong (a live
// restore reads every extent), and then it only says the VM is up.
class VmReady {
public:
    VmReady(const ReadyOptions& options, std::string vm, std::string controlSocket, bool record);
    // A console line, or an unfinished one as it stands (a prompt); from the
    // console's thread.
    void consoleLine(const std::string& line);
    // From the boot's loop: --ready-after.
    void tick();
    bool isUp() const { return m_up; }

private:
    void up();
    std::regex m_pattern;
    unsigned m_after;
    std::string m_vm, m_control;
    bool m_record;
    std::chrono::steady_clock::time_point m_start;
    std::atomic<bool> m_up{false};
};

}  // namespace zxblk
