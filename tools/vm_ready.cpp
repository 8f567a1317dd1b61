#include "vm_ready.h"

#include <cstdio>

#include "serve_net.h"

namespace zxblk {
namespace {

void say(const std::string& line) {
    if (!quiet()) std::fprintf(stderr, "zxblk: %s\n", line.c_str());
}

}  // namespace

void addReadyOptions(CLI::App* cmd, ReadyOptions& o) {
    cmd->add_option("--ready-pattern", o.pattern,
                    "the VM is up when a console line matches this regular expression (ECMAScript; an unfinished "
                    "line, such as a prompt, counts as it stands)")
        ->capture_default_str()
        ->check([](const std::string& text) {
            try {
                std::regex check(text);
            } catch (const std::regex_error& e) {
                return std::string("not a regular expression: ") + e.what();
            }
            return std::string();
        });
    addNumberOption(cmd, "--ready-after", o.after,
                    "the VM is up this many seconds after it starts, unless the pattern came first", 1u);
    auto* on = cmd->add_flag_function(
        "--prefetch", [&o](std::int64_t) { o.prefetch = 1; },
        "recall the mount extents an earlier boot recorded before the guest asks (the default once there are some)");
    cmd->add_flag_function(
           "--no-prefetch", [&o](std::int64_t) { o.prefetch = 0; }, "recall only what the guest reads")
        ->excludes(on);
}

std::string settlePrefetch(ReadyOptions& o, const std::string& store, const std::vector<PresentedDisk>& disks) {
    if (o.prefetch == 0) return std::string();
    Store s = Store::open(store);
    size_t total = 0;
    std::string each;
    for (const PresentedDisk& d : disks) {
        size_t n = s.indexRows(d.name, d.snapshot, "mount").size();
        total += n;
        each += (each.empty() ? "" : ", ") + d.name + " " + std::to_string(n);
    }
    if (o.prefetch < 0) o.prefetch = total > 0 ? 1 : 0;
    if (!o.prefetch) return std::string();
    return "prefetching " + std::to_string(total) + " mount extent" + (total == 1 ? "" : "s") +
           " recorded at an earlier boot" + (disks.size() > 1 ? " (" + each + ")" : std::string());
}

std::vector<std::string> readyServerArgs(const ReadyOptions& o, const std::string& controlSocket) {
    std::vector<std::string> args = {"control=" + controlSocket};
    if (o.prefetch > 0) args.push_back("prefetch=true");
    return args;
}

VmReady::VmReady(const ReadyOptions& o, std::string vm, std::string controlSocket, bool record)
    : m_pattern(o.pattern),
      m_after(o.after),
      m_vm(std::move(vm)),
      m_control(std::move(controlSocket)),
      m_record(record),
      m_start(std::chrono::steady_clock::now()) {}

void VmReady::consoleLine(const std::string& line) {
    if (!m_up && std::regex_search(line, m_pattern)) up();
}

void VmReady::tick() {
    if (!m_up && m_after && std::chrono::steady_clock::now() - m_start >= std::chrono::seconds(m_after)) up();
}

void VmReady::up() {
    if (m_up.exchange(true)) return;
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f",
                  std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count());
    std::string line = m_vm + " is up after " + seconds + " s";
    if (!m_record) {
        say(line + " (a live restore reads every extent: no mount extents are recorded)");
        return;
    }
    try {
        sendControl(m_control, "mount-complete");
        say(line + "; its mount extents are recorded");
    } catch (const std::exception& e) {
        // The VM runs on; only the next boot's head start is lost.
        say(line + ", but its mount extents could not be recorded: " + e.what());
    }
}

}  // namespace zxblk
