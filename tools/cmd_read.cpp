// export and read: a whole disk, or a byte range of it, through the provider,
// by way of the library a program would use.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <optional>
#include <sstream>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "export_sink.h"
#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

struct DiskArgs {
    std::string store, disk, cache;
    int snapshot = -1;
    bool allowDamaged = false;
};

void addDiskOptions(CLI::App* cmd, DiskArgs& a) {
    addStoreOption(cmd, a.store);
    cmd->add_option("--disk", a.disk, "disk name")->required();
    addNumberOption(cmd, "--snapshot", a.snapshot, "snapshot number, 0 the oldest (default: the newest)", 0);
    cmd->add_option("--cache", a.cache, "extent cache directory (default: under ~/.cache/zxblk)");
    addAllowDamagedOption(cmd, a.allowDamaged);
    addCommonOptions(cmd);
}

Disk openDisk(const DiskArgs& a) {
    DiskOptions o;
    o.snapshot = a.snapshot;
    o.cacheDir = a.cache;
    o.allowDamaged = a.allowDamaged;
    // Both commands say themselves what to recall ahead, if anything.
    o.readahead = 0;
    Disk disk = Disk::open(a.store, a.disk, o);
    sayNotices(disk.notices());
    return disk;
}

// One figure of Disk::statsText().
unsigned long long statValue(const std::string& stats, const std::string& key) {
    std::istringstream in(stats);
    std::string k;
    unsigned long long v;
    while (in >> k >> v)
        if (k == key) return v;
    return 0;
}

// Standard output in order, wherever it goes: a pipe, a terminal, a file
// (appended to or not) that later commands of a script go on writing.
void writeOut(const char* bytes, uint64_t length) {
    while (length) {
        ssize_t n = ::write(1, bytes, static_cast<size_t>(std::min<uint64_t>(length, 1 << 30)));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) throw Error(std::string("standard output: ") + std::strerror(n < 0 ? errno : EIO), ErrorKind::io);
        bytes += n, length -= static_cast<uint64_t>(n);
    }
}

// The extents of a disk that hold data, in order, from its allocation map
// asked a stretch at a time: a huge disk holding little costs as many
// questions as it has stretches, and none per extent it does not hold.
class DataExtents {
public:
    explicit DataExtents(Disk& disk)
        : m_disk(disk), m_extentSize(disk.extentSize()), m_stretch(disk.allocationGranularity() * 65536) {}
    // The next extent holding data, or extentCount() when none is left.
    uint64_t next() {
        for (;;) {
            while (!m_ranges.empty()) {
                const Range r = m_ranges.front();
                const uint64_t last = (r.offset + r.length - 1) / m_extentSize;
                m_candidate = std::max(m_candidate, r.offset / m_extentSize);
                if (m_candidate <= last) return m_candidate++;
                m_ranges.pop_front();
            }
            if (m_scanned >= m_disk.size()) return m_disk.extentCount();
            const uint64_t n = std::min(m_stretch, m_disk.size() - m_scanned);
            for (const Range& r : m_disk.allocation(m_scanned, n))
                if (r.data) m_ranges.push_back(r);
            m_scanned += n;
        }
    }

private:
    Disk& m_disk;
    const uint64_t m_extentSize, m_stretch;
    uint64_t m_scanned = 0;    // bytes of the disk whose allocation was asked for
    uint64_t m_candidate = 0;  // no extent before it is left to give
    std::deque<Range> m_ranges;
};

// What an export with --on-error zero filled with zeros, in disk order.
struct Filled {
    std::vector<SalvagedRange> ranges;
    // Neighbouring ranges as one, whichever snapshot they came from.
    std::vector<std::pair<uint64_t, uint64_t>> merged() const {
        std::vector<std::pair<uint64_t, uint64_t>> out;
        for (const SalvagedRange& r : ranges)
            if (!out.empty() && out.back().first + out.back().second == r.offset)
                out.back().second += r.length;
            else
                out.emplace_back(r.offset, r.length);
        return out;
    }
    uint64_t bytes() const {
        uint64_t n = 0;
        for (const SalvagedRange& r : ranges) n += r.length;
        return n;
    }
};

// The map of an export in GNU ddrescue's mapfile form, so that its tools
// (ddrescuelog) read it: every byte of the disk is finished ('+') or bad
// ('-', filled with zeros). Written whole under a temporary name.
void writeBadMap(const std::string& path, const std::string& what, uint64_t size, const Filled& filled) {
    std::string text = "# Mapfile. Written by zxblk export of " + what + "\n# current_pos  current_status  current_pass\n";
    char line[96];
    auto add = [&](uint64_t at, uint64_t n, char status) {
        std::snprintf(line, sizeof line, "0x%08llX  0x%08llX  %c\n", static_cast<unsigned long long>(at),
                      static_cast<unsigned long long>(n), status);
        text += line;
    };
    std::snprintf(line, sizeof line, "0x%08llX     +               1\n#      pos        size  status\n", 0ull);
    text += line;
    uint64_t at = 0;
    for (const auto& bad : filled.merged()) {
        if (bad.first > at) add(at, bad.first - at, '+');
        add(bad.first, bad.second, '-');
        at = bad.first + bad.second;
    }
    if (at < size) add(at, size - at, '+');
    const std::string temp = path + ".zxblk-tmp";
    std::FILE* f = std::fopen(temp.c_str(), "w");
    bool ok = f && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    ok = f && std::fclose(f) == 0 && ok;
    if (!ok || std::rename(temp.c_str(), path.c_str()) != 0) {
        int err = errno;
        std::remove(temp.c_str());
        throw Error("bad map " + path + ": " + std::strerror(err), ErrorKind::io);
    }
}

// "6 MiB", "300 KiB", "4097 bytes".
std::string sizeText(uint64_t n) {
    if (n && n % (1 << 20) == 0) return std::to_string(n >> 20) + " MiB";
    if (n && n % 1024 == 0) return std::to_string(n >> 10) + " KiB";
    return std::to_string(n) + " bytes";
}

// The export proper. `leaves` says what a stop part way leaves at `out`.
void exportDisk(const DiskArgs& args, const std::string& out, const std::string& onError, const std::string& badMap,
                const StopSignals& stop, std::string& leaves) {
    Disk disk = openDisk(args);
    const uint64_t E = disk.extentSize(), total = disk.size(), count = disk.extentCount();
    ExportSink sink(out, total);
    for (const std::string& r : sink.removed()) sayNotices({"removed a leftover of a killed export: " + r});
    if (sink.inPlace()) leaves = sink.describe() + " holds part of the disk";
    Progress progress("export " + args.disk, total);
    auto start = std::chrono::steady_clock::now();
    // Recalls run this many extents holding data ahead of the one being
    // written, so that recalling and writing overlap, and a store a
    // network away has as many recalls at once as a disk of it runs.
    // The allocation map is walked once: the extents are written in the
    // order they were asked for.
    const uint64_t window = 32;
    DataExtents held(disk);
    std::deque<uint64_t> ahead;
    Filled filled;
    std::vector<char> salvage;
    for (uint64_t written = 0;;) {
        stop.check();
        while (ahead.size() < window) {
            uint64_t e = held.next();
            if (e >= count) break;
            disk.prefetch(e * E, std::min(E, total - e * E));
            ahead.push_back(e);
        }
        const uint64_t e = ahead.empty() ? count : ahead.front();
        if (!ahead.empty()) ahead.pop_front();
        // What no snapshot holds is zeros, a hole where the output can
        // hold one: nothing to recall.
        const uint64_t at = std::min(e * E, total);
        if (at > written) sink.zeros(written, at - written);
        if (e >= count) break;
        const uint64_t n = std::min(E, total - at);
        std::optional<LocalExtent> extent;
        try {
            extent.emplace(disk.extent(e));
        } catch (const Error& failed) {
            if (onError != "zero")
                throw Error("export of " + args.disk + " snapshot " + std::to_string(disk.snapshot()) +
                                " failed: " + failed.what(),
                            failed.kind());
        }
        if (extent) {
            sink.copyFrom(extent->fd(), 0, at, n);
            extent.reset();
        } else {
            // Read again past the damage: only the blocks that fail
            // their checks become zeros, not the rest of the extent.
            salvage.resize(n);
            for (SalvagedRange& r : disk.readSalvaged(at, n, salvage.data())) filled.ranges.push_back(std::move(r));
            sink.write(salvage.data(), at, n);
        }
        // A recalled extent is not kept: an export reads each once.
        disk.dropExtent(e);
        written = at + n;
        progress.update(written);
    }
    progress.update(total);
    // A stop asked for while the image was synced still leaves the target
    // as it was: only the rename below replaces it.
    sink.sync();
    stop.check();
    sink.commit();
    progress.finish();
    if (!badMap.empty())
        writeBadMap(badMap, args.disk + " snapshot " + std::to_string(disk.snapshot()), total, filled);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    unsigned long long recalled = statValue(disk.statsText(), "extents_recalled");
    // The image may be going to standard output: the summary goes beside it.
    std::FILE* report = sink.toStandardOutput() ? stderr : stdout;
    if (commonOptions().json) {
        nlohmann::json summary = {{"disk", args.disk},          {"snapshot", disk.snapshot()},
                                  {"out", sink.describe()},     {"bytes", total},
                                  {"extentsRecalled", recalled}, {"seconds", seconds}};
        const DiskStats st = disk.stats();
        if (st.remote)
            summary["store"] = {{"gets", st.storeGets},
                                {"getBytes", st.storeGetBytes},
                                {"retries", st.storeRetries},
                                {"rttSeconds", st.storeRttSeconds},
                                {"bytesPerSecond", st.storeBytesPerSecond},
                                {"heldPeak", st.storeHeldPeak}};
        if (onError == "zero") {
            summary["filled"] = nlohmann::json::array();
            for (const SalvagedRange& r : filled.ranges)
                summary["filled"].push_back({{"offset", r.offset}, {"length", r.length}, {"snapshot", r.snapshot},
                                             {"file", r.file},     {"block", r.block},   {"why", r.why}});
        }
        std::fprintf(report, "%s\n", summary.dump(2).c_str());
    } else if (!quiet()) {
        std::fprintf(report, "exported %s snapshot %d to %s: %llu extents recalled, %llu bytes, %.2f s, %.1f MiB/s\n",
                 args.disk.c_str(), disk.snapshot(), sink.describe().c_str(), recalled,
                 static_cast<unsigned long long>(total), seconds, seconds > 0 ? total / 1048576.0 / seconds : 0.0);
    }
    if (filled.ranges.empty()) return;
    // One line, however many: the ranges are in the map and the JSON.
    std::fprintf(stderr, "export of %s snapshot %d: %zu damaged ranges (%s) filled with zeros; %s\n",
                 args.disk.c_str(), disk.snapshot(), filled.merged().size(), sizeText(filled.bytes()).c_str(),
                 badMap.empty() ? "--bad-map FILE lists them" : ("see " + badMap).c_str());
    // Exit 3 says the image is complete but holds zeros for what was
    // lost; the disk is closed first, as a return would close it.
    { Disk closing = std::move(disk); }
    std::fflush(nullptr);
    std::exit(3);
}

}  // namespace

void registerExportCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("export", "write the whole disk as a raw image, recalled through the provider");
    static DiskArgs args;
    static std::string out, onError = "stop", badMap;
    addDiskOptions(cmd, args);
    cmd->add_option("--on-error", onError,
                    "stop: fail at the first extent that cannot be recalled; zero: go on, read what can be read "
                    "around it and fill the damaged blocks with zeros (exit 3 when any were)")
        ->check(CLI::IsMember({"stop", "zero"}));
    cmd->add_option("--bad-map", badMap, "write what was filled with zeros to this file, as a ddrescue mapfile");
    cmd->add_option("--out", out,
                    "raw image to write: a file (written sparse, under a temporary name until complete), a block "
                    "device, a FIFO, or - for standard output")
        ->required();
    addProgressOption(cmd);
    addJsonOption(cmd);
    cmd->callback([] {
        applyCommonOptions();
        StopSignals stop;
        // What an export stopped by a signal leaves where it was writing.
        std::string leaves = "nothing written to " + out;
        try {
            exportDisk(args, out, onError, badMap, stop, leaves);
        } catch (...) {
            // Whatever the signal broke off, the export stopped for it; the
            // temporary and the disk went as the stack unwound.
            if (!stop.received()) throw;
            stop.end("export of " + args.disk + " stopped by " + stop.name() + "; " + leaves);
        }
    });
}

void registerReadCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("read", "write a byte range of the disk to standard output");
    static DiskArgs args;
    static uint64_t offset = 0, length = 0;
    addDiskOptions(cmd, args);
    addSizeOption(cmd, "--offset", offset, "first byte (a size: 1M is byte 1048576)")->required();
    addSizeOption(cmd, "--length", length, "number of bytes (e.g. 4096 or 4K)")->required();
    cmd->callback([] {
        applyCommonOptions();
        Disk disk = openDisk(args);
        // The whole range is checked before anything is written.
        if (offset > disk.size() || length > disk.size() - offset)
            throw Error("range " + std::to_string(offset) + "+" + std::to_string(length) + " is past the end of disk " +
                            args.disk + " (" + std::to_string(disk.size()) + " bytes)",
                        ErrorKind::invalidArgument);
        std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(length, 16 << 20)));
        for (uint64_t done = 0; done < length;) {
            uint64_t n = std::min<uint64_t>(buffer.size(), length - done);
            disk.read(offset + done, n, buffer.data());
            writeOut(buffer.data(), n);
            done += n;
        }
    });
}

}  // namespace zxblk
