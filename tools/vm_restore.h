// Live restore: while a VM booted from its backup runs, qemu copies each of
// its disks, overlay and backup beneath it as one, to a local file
// (blockdev-mirror, sync full, through QMP). Once every copy has caught up
// the jobs are completed: each device of the VM moves onto its copy, which
// from then on takes its writes, and the backup is no longer read. Until
// then a copy has a temporary name, so that nothing half-copied ever looks
// like a restored disk; a copy that fails is dropped with its file and the
// VM goes on running from the backup.
#pragma once
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "qmp_client.h"

namespace zxblk {

struct RestoreOptions {
    std::string dir;  // empty: no live restore
    std::string format = "qcow2";
    uint64_t speed = 0;  // bytes a second for each disk's copy; 0: as fast as it goes
};
// --restore-to, --restore-format, --restore-speed.
void addRestoreOptions(CLI::App* cmd, RestoreOptions& options);

struct RestoreDisk {
    std::string name;     // the disk's, which names its file
    std::string node;     // qemu's node the device reads (the overlay)
    std::string backing;  // the node beneath it (the backup over NBD)
    uint64_t size = 0;
};

class LiveRestore {
public:
    enum class State { idle, copying, restored, failed };

    // Makes the folder when it is missing and refuses, in one line, a disk
    // whose file is there already: a restore never writes over a file.
    LiveRestore(const RestoreOptions& options, const std::string& vm, std::vector<RestoreDisk> disks,
                std::string qemuImg, bool progressLines);
    // Removes the temporary files of copies that did not finish.
    ~LiveRestore();
    LiveRestore(const LiveRestore&) = delete;
    LiveRestore& operator=(const LiveRestore&) = delete;

    // The file a disk is restored to.
    std::string target(const RestoreDisk& disk) const;
    // Makes each temporary file and starts its copy. A failure ends the
    // restore with a warning (state failed); the VM is left as it was.
    void start(QmpClient& qmp);
    // Looks at the copies (at most a few times a second): progress lines,
    // the jobs completed once all have caught up, and then the old nodes
    // removed from qemu. Returns the state after.
    State step(QmpClient& qmp);
    State state() const { return m_state; }
    // "DIR/sys.qcow2 (64 MiB in 3 s)" once restored.
    std::string summary() const;
    // Where a failed copy's cause is found: qemu says only "Input/output
    // error" of a read the server could not answer, the server says why.
    void setServerCause(std::function<std::string()> cause) { m_serverCause = std::move(cause); }

private:
    void fail(QmpClient& qmp, const std::string& why);
    void finish(QmpClient& qmp);
    void progress(const nlohmann::json& jobs);
    std::string partial(const RestoreDisk& disk) const;
    std::string jobOf(size_t i) const { return "restore" + std::to_string(i); }

    RestoreOptions m_options;
    std::string m_vm, m_qemuImg;
    std::vector<RestoreDisk> m_disks;
    bool m_progressLines;
    bool m_madeDir = false;  // the folder was not there before: it goes with a restore that fails
    State m_state = State::idle;
    size_t m_added = 0;  // target nodes added to qemu
    std::vector<uint64_t> m_lastOffset;
    uint64_t m_copied = 0;
    int64_t m_took = 0;  // seconds from start to the move onto the copies
    std::chrono::steady_clock::time_point m_started, m_lastStep, m_lastProgress;
    std::function<std::string()> m_serverCause;
};

}  // namespace zxblk
