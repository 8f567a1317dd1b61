#include "vm_restore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "cli_util.h"
#include "vm_overlay.h"
#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// How much each copy holds in flight. qemu reads it in pieces of 1 MiB, in
// order, which the server's readahead serves well; and the copy shares the
// VM's one NBD connection, on which qemu has 16 requests at most under way:
// 8 MiB keeps the copy to half of them, so that the VM's own reads never
// wait for a slot behind it. With a speed limit, no more than a second's
// worth: qemu sends a whole buffer before it first waits, so a larger one
// makes the limit lumpy.
const uint64_t kBufSize = 8ull << 20, kSmallestBuf = 1ull << 20;
// How often a copy is looked at, and its progress told.
const std::chrono::milliseconds kStepEvery(250);
const std::chrono::seconds kProgressEvery(3);
// A job asked to complete or to stop ends within this long, or qemu hangs.
const std::chrono::seconds kEndTimeout(120);

void say(const std::string& line) {
    if (!quiet()) std::fprintf(stderr, "zxblk: %s\n", line.c_str());
}

// Our jobs in qemu's list, by id; null for one not there.
nlohmann::json findJob(const nlohmann::json& jobs, const std::string& id) {
    for (const nlohmann::json& j : jobs)
        if (j.value("id", "") == id) return j;
    return nullptr;
}

bool ended(const std::string& status) { return status == "concluded" || status == "null"; }

void syncFolder(const std::string& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}

}  // namespace

void addRestoreOptions(CLI::App* cmd, RestoreOptions& o) {
    auto* to = cmd->add_option("--restore-to", o.dir,
                    "once the VM runs, copy each of its disks to DIR/DISK.qcow2 and, when all are copied, move the "
                    "running VM onto them and stop reading the backup");
    to->type_name("DIR");
    cmd->add_option("--restore-format", o.format, "with --restore-to: the copies' format, qcow2 or raw")
        ->check(CLI::IsMember({"qcow2", "raw"}))
        ->capture_default_str()
        ->needs(to);
    auto* speed = cmd->add_option_function<std::string>(
        "--restore-speed",
        [&o](const std::string& text) {
            std::string size = text;
            if (size.size() > 2 && size.compare(size.size() - 2, 2, "/s") == 0) size.resize(size.size() - 2);
            o.speed = parseSize(size);
        },
        "with --restore-to: the most each disk's copy reads a second, e.g. 50M/s (default 0: no limit)");
    speed->type_name("SIZE/s")->needs(to);
}

LiveRestore::LiveRestore(const RestoreOptions& options, const std::string& vm, std::vector<RestoreDisk> disks,
                         std::string qemuImg, bool progressLines)
    : m_options(options),
      m_vm(vm),
      m_qemuImg(std::move(qemuImg)),
      m_disks(std::move(disks)),
      m_progressLines(progressLines),
      m_lastOffset(m_disks.size(), 0) {
    std::error_code ec;
    m_madeDir = fs::create_directories(m_options.dir, ec);
    if (ec) throw Error("--restore-to " + m_options.dir + ": " + ec.message(), ErrorKind::io);
    for (const RestoreDisk& d : m_disks)
        if (fs::exists(target(d), ec))
            throw Error("--restore-to: " + target(d) +
                            " is there already; a restore writes over no file (remove it, or restore to another "
                            "folder)",
                        ErrorKind::invalidArgument);
}

LiveRestore::~LiveRestore() {
    if (m_state == State::restored) return;
    // qemu may still hold them open; what it writes there now is lost.
    std::error_code ec;
    for (const RestoreDisk& d : m_disks) fs::remove(partial(d), ec);
    // Only when empty: nothing the user put there goes.
    if (m_madeDir) fs::remove(m_options.dir, ec);
}

std::string LiveRestore::target(const RestoreDisk& d) const {
    return m_options.dir + "/" + d.name + "." + m_options.format;
}

std::string LiveRestore::partial(const RestoreDisk& d) const {
    return m_options.dir + "/." + d.name + "." + m_options.format + ".zxblk-partial";
}

void LiveRestore::start(QmpClient& qmp) {
    m_started = m_lastStep = m_lastProgress = Clock::now();
    m_state = State::copying;
    try {
        for (size_t i = 0; i < m_disks.size(); ++i) {
            const RestoreDisk& d = m_disks[i];
            // A new file reads as zeros, so the copy skips what the disk
            // does not hold and the file stays as sparse as the disk.
            const std::string log = m_options.dir + "/.qemu-img.log";
            std::string why = runQuietly(
                {m_qemuImg, "create", "-q", "-f", m_options.format, partial(d), std::to_string(d.size)}, log);
            std::error_code ec;
            fs::remove(log, ec);
            if (!why.empty()) throw Error("cannot make " + partial(d) + ": " + why, ErrorKind::io);
            nlohmann::json file = {{"driver", "file"}, {"filename", partial(d)}};
            nlohmann::json node = {{"driver", m_options.format}, {"node-name", d.node + "-restore"}, {"file", file}};
            if (m_options.format == "qcow2") node["backing"] = nullptr;
            qmp.execute("blockdev-add", node);
            ++m_added;
            // The top node with sync full: the overlay's writes and the
            // backup beneath as one standalone image. Write-blocking: once
            // a copy has caught up, each write of the VM reaches the copy
            // before the VM hears it is done, so the copy stays whole.
            nlohmann::json mirror = {{"job-id", jobOf(i)},
                                     {"device", d.node},
                                     {"target", d.node + "-restore"},
                                     {"sync", "full"},
                                     {"buf-size", kBufSize},
                                     {"copy-mode", "write-blocking"},
                                     {"auto-dismiss", false}};
            if (m_options.speed) {
                mirror["speed"] = m_options.speed;
                mirror["buf-size"] = std::clamp(m_options.speed, kSmallestBuf, kBufSize);
            }
            qmp.execute("blockdev-mirror", mirror);
        }
    } catch (const Error& e) {
        fail(qmp, e.what());
        return;
    }
    std::string names;
    for (const RestoreDisk& d : m_disks) names += (names.empty() ? "" : ", ") + d.name;
    say("restoring " + m_vm + " (" + names + ") to " + m_options.dir + " as " + m_options.format +
        (m_options.speed ? ", at most " + humanSize(m_options.speed) + "/s a disk" : std::string()) +
        ", while it runs");
}

LiveRestore::State LiveRestore::step(QmpClient& qmp) {
    const auto now = Clock::now();
    if (m_state != State::copying || now - m_lastStep < kStepEvery) return m_state;
    m_lastStep = now;
    try {
        nlohmann::json jobs = qmp.execute("query-jobs");
        bool allReady = true;
        for (size_t i = 0; i < m_disks.size(); ++i) {
            nlohmann::json job = findJob(jobs, jobOf(i));
            if (job.is_null()) throw Error(m_disks[i].name + ": its copy is gone from qemu", ErrorKind::unavailable);
            if (job.contains("error")) throw Error(m_disks[i].name + ": " + job.value("error", ""), ErrorKind::io);
            const std::string status = job.value("status", "");
            if (ended(status) || status == "aborting")
                throw Error(m_disks[i].name + ": its copy stopped (" + status + ")", ErrorKind::io);
            allReady = allReady && status == "ready";
        }
        if (m_progressLines && now - m_lastProgress >= kProgressEvery) progress(jobs);
        if (allReady) finish(qmp);
    } catch (const Error& e) {
        if (m_state == State::copying) fail(qmp, e.what());
    }
    return m_state;
}

void LiveRestore::progress(const nlohmann::json& jobs) {
    const auto now = Clock::now();
    const double seconds = std::chrono::duration<double>(now - m_lastProgress).count();
    m_lastProgress = now;
    for (size_t i = 0; i < m_disks.size(); ++i) {
        nlohmann::json job = findJob(jobs, jobOf(i));
        const uint64_t done = job.value("current-progress", uint64_t(0));
        const uint64_t total = std::max<uint64_t>(job.value("total-progress", uint64_t(0)), 1);
        const uint64_t rate = seconds > 0 && done > m_lastOffset[i]
                                  ? static_cast<uint64_t>(static_cast<double>(done - m_lastOffset[i]) / seconds)
                                  : 0;
        m_lastOffset[i] = done;
        char percent[16];
        std::snprintf(percent, sizeof percent, "%u%%", static_cast<unsigned>(done * 100 / total));
        say("restore " + m_vm + " " + m_disks[i].name + ": " + humanSize(done) + " of " + humanSize(total) + " (" +
            percent + "), " + humanSize(rate) + "/s");
    }
}

// Every copy has caught up: each device moves onto its copy, which only
// then gets its name.
void LiveRestore::finish(QmpClient& qmp) {
    for (size_t i = 0; i < m_disks.size(); ++i) qmp.execute("job-complete", {{"id", jobOf(i)}});
    const auto deadline = Clock::now() + kEndTimeout;
    std::vector<bool> done(m_disks.size(), false);
    for (size_t left = m_disks.size(); left > 0;) {
        if (Clock::now() >= deadline)
            throw Error("the copies did not complete within " + std::to_string(kEndTimeout.count()) + " s",
                        ErrorKind::unavailable);
        nlohmann::json jobs = qmp.execute("query-jobs");
        for (size_t i = 0; i < m_disks.size(); ++i) {
            if (done[i]) continue;
            nlohmann::json job = findJob(jobs, jobOf(i));
            if (job.is_null()) throw Error(m_disks[i].name + ": its copy is gone from qemu", ErrorKind::unavailable);
            if (job.contains("error")) throw Error(m_disks[i].name + ": " + job.value("error", ""), ErrorKind::io);
            if (!ended(job.value("status", ""))) continue;
            m_copied += job.value("total-progress", uint64_t(0));
            done[i] = true, --left;
        }
        if (left) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    m_state = State::restored;
    m_took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_started).count();
    // From here the VM runs from the copies: nothing that goes wrong below
    // undoes that, and the copies keep their names.
    for (size_t i = 0; i < m_disks.size(); ++i) {
        std::error_code ec;
        fs::rename(partial(m_disks[i]), target(m_disks[i]), ec);
        if (ec) say("warning: cannot name " + partial(m_disks[i]) + " " + target(m_disks[i]) + ": " + ec.message());
        try {
            qmp.execute("job-dismiss", {{"id", jobOf(i)}});
        } catch (const Error&) {
            // Only qemu's list of jobs keeps it.
        }
    }
    syncFolder(m_options.dir);
    for (const RestoreDisk& d : m_disks)
        for (const std::string& node : {d.node, d.backing}) {
            try {
                qmp.execute("blockdev-del", {{"node-name", node}});
            } catch (const Error& e) {
                say("warning: " + std::string(e.what()));
            }
        }
}

void LiveRestore::fail(QmpClient& qmp, const std::string& why) {
    m_state = State::failed;
    // Every copy stops, the ones that were fine too: a restore is of the
    // whole VM or not at all.
    const auto deadline = Clock::now() + kEndTimeout;
    for (size_t i = 0; i < m_added; ++i) {
        try {
            qmp.execute("job-cancel", {{"id", jobOf(i)}});
        } catch (const Error&) {
            // Ended already, or never started.
        }
    }
    try {
        for (bool running = true; running && !qmp.closed() && Clock::now() < deadline;) {
            nlohmann::json jobs = qmp.execute("query-jobs");
            running = false;
            for (size_t i = 0; i < m_added; ++i) {
                nlohmann::json job = findJob(jobs, jobOf(i));
                running = running || (!job.is_null() && !ended(job.value("status", "")));
            }
            if (running) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        for (size_t i = 0; i < m_added; ++i) {
            try {
                qmp.execute("job-dismiss", {{"id", jobOf(i)}});
            } catch (const Error&) {
            }
            qmp.execute("blockdev-del", {{"node-name", m_disks[i].node + "-restore"}});
        }
    } catch (const Error&) {
        // qemu has ended or will not let go of a copy: its file goes anyway.
    }
    std::error_code ec;
    for (const RestoreDisk& d : m_disks) fs::remove(partial(d), ec);
    const std::string server = m_serverCause ? m_serverCause() : std::string();
    std::fprintf(stderr, "zxblk: warning: live restore of %s failed: %s%s; the VM goes on running from the backup\n",
                 m_vm.c_str(), why.c_str(), server.empty() ? "" : (" (the server: " + server + ")").c_str());
}

std::string LiveRestore::summary() const {
    std::string files;
    for (const RestoreDisk& d : m_disks) files += (files.empty() ? "" : ", ") + target(d);
    return files + " (" + humanSize(m_copied) + " in " + std::to_string(m_took) + " s)";
}

}  // namespace zxblk
