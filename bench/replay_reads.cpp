// replay_reads STORE DISK TRACE CACHE [--readahead BYTES]
//
// Replays a recorded read trace against Disk::read of one disk on a new
// extent cache, one read after another in the recorded order, and prints
// one line of what it cost:
//
//   reads=2210 bytes=41943040 touched=140 recalled=171 read_ahead=40 unused=9 ratio=1.22 seconds=0.412
//
// touched: extents the reads cover that hold data (those a reader cannot do
// without); recalled: extents the disk recalled in all, read ahead among
// them; unused: read-ahead extents never read (as the disk's statistics
// count them; "-" from a library that does not). The trace is text, one
// read a line: "OFFSET LENGTH" in bytes (decimal or 0x hex).
//
// It builds against the library it is given, an older one too (before the
// readahead window was set in bytes), so that a bench can replay the same
// trace with the library before and after a change.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "zxblk/zxblk.h"

namespace {

// The window in bytes where the library takes bytes, in whole extents where
// it takes extents.
template <class O>
auto setWindow(O& o, uint64_t bytes, uint64_t, int) -> decltype(o.readahead = bytes, void()) {
    o.readahead = bytes;
}
template <class O>
void setWindow(O& o, uint64_t bytes, uint64_t extent, long) {
    o.readaheadMax = static_cast<unsigned>(bytes / extent);
}

std::string stat(const std::string& text, const std::string& key) {
    std::istringstream in(text);
    std::string k, v;
    while (in >> k >> v)
        if (k == key) return v;
    return "-";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5 && !(argc == 7 && std::string(argv[5]) == "--readahead")) {
        std::fprintf(stderr, "usage: replay_reads STORE DISK TRACE CACHE [--readahead BYTES]\n");
        return 2;
    }
    std::vector<std::pair<uint64_t, uint64_t>> reads;
    {
        std::ifstream in(argv[3]);
        if (!in) {
            std::fprintf(stderr, "replay_reads: cannot read the trace %s\n", argv[3]);
            return 2;
        }
        std::string a, b;
        while (in >> a >> b) reads.emplace_back(std::stoull(a, nullptr, 0), std::stoull(b, nullptr, 0));
        if (!in.eof() || reads.empty()) {
            std::fprintf(stderr, "replay_reads: %s: not a trace of \"OFFSET LENGTH\" lines\n", argv[3]);
            return 2;
        }
    }
    try {
        zxblk::Store store = zxblk::Store::open(argv[1]);
        const uint64_t E = store.disk(argv[2]).extentSize;
        zxblk::DiskOptions options;
        options.cacheDir = argv[4];
        options.dropCacheAtEnd = true;
        if (argc == 7) setWindow(options, std::stoull(argv[6], nullptr, 0), E, 0);
        zxblk::Disk disk = store.openDisk(argv[2], options);

        std::set<uint64_t> touched;
        uint64_t bytes = 0;
        for (const auto& r : reads) {
            if (r.first >= disk.size() || !r.second) continue;
            const uint64_t n = std::min(r.second, disk.size() - r.first);
            for (const zxblk::Range& a : disk.allocation(r.first, n))
                if (a.data)
                    for (uint64_t e = a.offset / E; e <= (a.offset + a.length - 1) / E; ++e) touched.insert(e);
        }
        std::vector<char> buffer;
        auto start = std::chrono::steady_clock::now();
        for (const auto& r : reads) {
            if (r.first >= disk.size() || !r.second) continue;
            const uint64_t n = std::min(r.second, disk.size() - r.first);
            buffer.resize(n);
            disk.read(r.first, n, buffer.data());
            bytes += n;
        }
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const std::string text = disk.statsText();
        const double recalled = std::strtod(stat(text, "extents_recalled").c_str(), nullptr);
        std::printf("reads=%zu bytes=%llu touched=%zu recalled=%s read_ahead=%s unused=%s ratio=%.2f seconds=%.3f\n",
                    reads.size(), static_cast<unsigned long long>(bytes), touched.size(),
                    stat(text, "extents_recalled").c_str(), stat(text, "extents_read_ahead").c_str(),
                    stat(text, "read_ahead_unused").c_str(), touched.empty() ? 0.0 : recalled / touched.size(),
                    seconds);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "replay_reads: %s\n", e.what());
        return 1;
    }
}
