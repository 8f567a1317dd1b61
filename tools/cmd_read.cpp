// export and read: a whole disk, or a byte range of it, through the provider.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "host/disk_host.h"
#include "tools/commands.h"
#include "tools/export_sink.h"

namespace zxblk {
namespace {

struct DiskArgs {
    std::string store, disk, cache;
    int snapshot = -1;
};

void addDiskOptions(CLI::App* cmd, DiskArgs& a) {
    cmd->add_option("--store", a.store, "store directory")->required()->check(CLI::ExistingDirectory);
    cmd->add_option("--disk", a.disk, "disk name")->required();
    cmd->add_option("--snapshot", a.snapshot, "snapshot number (default: the newest)");
    cmd->add_option("--cache", a.cache, "extent cache directory (default: under ~/.cache/zxblk)");
    addCommonOptions(cmd);
}

HostOptions hostOptions(const DiskArgs& a) {
    HostOptions o;
    o.storeDir = a.store;
    o.disk = a.disk;
    o.snapshot = a.snapshot;
    o.cacheDir = a.cache;
    return o;
}

void writeAll(int fd, const char* data, size_t n, const std::string& what) {
    while (n) {
        ssize_t w = ::write(fd, data, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) throw StoreError(what + ": " + std::strerror(errno));
        data += w;
        n -= static_cast<size_t>(w);
    }
}

}  // namespace

void registerExportCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("export", "write the whole disk as a raw image, recalled through the provider");
    static DiskArgs args;
    static std::string out;
    addDiskOptions(cmd, args);
    cmd->add_option("--out", out,
                    "raw image to write: a file (written sparse, under a temporary name until complete), a block "
                    "device, a FIFO, or - for standard output")
        ->required();
    cmd->callback([] {
        applyCommonOptions();
        DiskHost host(hostOptions(args));
        const uint64_t E = static_cast<uint64_t>(host.extentSize()), total = host.size();
        ExportSink sink(out, total);
        bool progress = ::isatty(2);
        auto start = std::chrono::steady_clock::now();
        // Recalls run this many extents ahead of the one being written, so
        // that recalling and writing overlap.
        const uint64_t window = 8;
        try {
            host.readahead(1, window);
            for (uint64_t e = 0; e < host.extentCount(); ++e) {
                // The window moves on by one: only the extent entering it is new.
                host.readahead(e + window, 1);
                uint64_t n = std::min(E, total - e * E);
                // What no snapshot holds is zeros: nothing to recall.
                if (!host.holdsData(e)) {
                    sink.zeros(e * E, n);
                } else {
                    std::unique_ptr<ExtentHandle> extent = host.acquire(e);
                    sink.copyFrom(extent->fd(), 0, e * E, n);
                    extent.reset();
                    // A recalled extent is not kept: an export reads each once.
                    host.forget(e);
                }
                if (progress) {
                    int pct = static_cast<int>((e * E + n) * 100 / total);
                    std::fprintf(stderr, "\r[%-50s] %3d%%", std::string(pct / 2, '#').c_str(), pct);
                }
            }
            sink.commit();
        } catch (...) {
            if (progress) std::fprintf(stderr, "\n");
            throw;
        }
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        HostStats s = host.stats();
        if (progress) std::fprintf(stderr, "\n");
        // The image may be going to standard output: the summary goes beside it.
        std::FILE* report = sink.toStandardOutput() ? stderr : stdout;
        std::fprintf(report, "exported %s snapshot %d to %s: %llu extents recalled, %llu bytes, %.2f s, %.1f MiB/s\n",
                     args.disk.c_str(), host.snapshot(), sink.describe().c_str(),
                     static_cast<unsigned long long>(s.extentsRecalled), static_cast<unsigned long long>(total), seconds,
                     seconds > 0 ? total / 1048576.0 / seconds : 0.0);
    });
}

void registerReadCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("read", "write a byte range of the disk to standard output");
    static DiskArgs args;
    static uint64_t offset = 0, length = 0;
    addDiskOptions(cmd, args);
    cmd->add_option("--offset", offset, "first byte")->required();
    cmd->add_option("--length", length, "number of bytes")->required();
    cmd->callback([] {
        applyCommonOptions();
        DiskHost host(hostOptions(args));
        if (offset > host.size() || length > host.size() - offset)
            throw StoreError("range " + std::to_string(offset) + "+" + std::to_string(length) + " is past the end of disk " +
                             args.disk + " (" + std::to_string(host.size()) + " bytes)");
        std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(length, 16 << 20)));
        for (uint64_t done = 0; done < length;) {
            uint64_t n = std::min<uint64_t>(buffer.size(), length - done);
            host.read(offset + done, n, buffer.data());
            writeAll(1, buffer.data(), n, "standard output");
            done += n;
        }
    });
}

}  // namespace zxblk
