// zxblk stats: what a running mount has recalled, read ahead and cached, as
// its MOUNTPOINT/.stats tells, or a server as its `zxblk serve --stats FILE`
// tells, in words or as JSON.
#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

// A mount of several disks has a folder per disk, each with its .stats:
// their names ("a, b"), or "" for any other folder.
std::string disksMountedIn(const std::string& folder) {
    std::string names;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code statError;
        if (std::filesystem::is_regular_file(it->path() / ".stats", statError))
            names += (names.empty() ? "" : ", ") + it->path().filename().string();
    }
    return names;
}

// The "key value" lines of a mount's .stats, in their order.
std::vector<std::pair<std::string, uint64_t>> readStats(const std::string& mountpoint) {
    struct stat st;
    if (::stat(mountpoint.c_str(), &st) != 0) throw Error(mountpoint + ": " + std::strerror(errno), ErrorKind::notFound);
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode))
        throw Error(mountpoint + " is neither a zxblk mount nor a statistics file", ErrorKind::invalidArgument);
    std::ifstream in(S_ISDIR(st.st_mode) ? mountpoint + "/.stats" : mountpoint);
    if (!in) {
        std::string disks = disksMountedIn(mountpoint);
        throw Error(disks.empty() ? mountpoint + " is not a zxblk mount (it has no .stats)"
                                  : mountpoint + " is a mount of several disks (" + disks + "): give " + mountpoint +
                                        "/DISK",
                    ErrorKind::invalidArgument);
    }
    std::vector<std::pair<std::string, uint64_t>> stats;
    std::string line;
    while (std::getline(in, line)) {
        size_t space = line.find(' ');
        uint64_t value = 0;
        const char* end = line.data() + line.size();
        auto parsed = space == std::string::npos ? std::from_chars_result{nullptr, std::errc::invalid_argument}
                                                 : std::from_chars(line.data() + space + 1, end, value);
        if (space == 0 || parsed.ec != std::errc() || parsed.ptr != end)
            throw Error(mountpoint + " is not a zxblk mount" +
                             (S_ISDIR(st.st_mode) ? " (its .stats has a line '" : " or statistics file (it has a line '") +
                             line + "')",
                        ErrorKind::invalidArgument);
        stats.emplace_back(line.substr(0, space), value);
    }
    bool disk = false;
    for (const auto& kv : stats) disk = disk || kv.first == "disk_bytes";
    if (!disk)
        throw Error(mountpoint + " is not a zxblk mount (its statistics give no disk size)", ErrorKind::invalidArgument);
    return stats;
}

std::string plural(uint64_t n, const char* word) { return std::to_string(n) + " " + word + (n == 1 ? "" : "s"); }

}  // namespace

void registerStatsCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("stats", "what a running mount or server has recalled, read ahead and cached");
    static std::string mountpoint;
    cmd->add_option("mountpoint", mountpoint, "where zxblk mount presents a disk (MOUNTPOINT/DISK in a mount of several), or a "
                    "statistics file of zxblk serve --stats")
        ->required();
    addJsonOption(cmd);
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        auto stats = readStats(mountpoint);
        // The phases are yes or no; every other figure is a count.
        auto isFlag = [](const std::string& key) { return key == "mount_complete" || key == "metadata_phase"; };
        if (commonOptions().json) {
            // In the order .stats gives them.
            nlohmann::ordered_json out = nlohmann::ordered_json::object();
            for (const auto& kv : stats)
                out[kv.first] =
                    isFlag(kv.first) ? nlohmann::ordered_json(kv.second != 0) : nlohmann::ordered_json(kv.second);
            std::printf("%s\n", out.dump(2).c_str());
            return;
        }
        std::vector<std::pair<std::string, uint64_t>> unknown;
        auto take = [&](const std::string& key) {
            for (auto it = unknown.begin(); it != unknown.end(); ++it)
                if (it->first == key) {
                    uint64_t v = it->second;
                    unknown.erase(it);
                    return v;
                }
            return uint64_t(0);
        };
        unknown = stats;
        uint64_t diskBytes = take("disk_bytes"), extentSize = take("extent_size");
        uint64_t extents = extentSize ? (diskBytes + extentSize - 1) / extentSize : 0;
        uint64_t recalled = take("extents_recalled"), recalledBytes = take("bytes_recalled");
        uint64_t ahead = take("extents_read_ahead"), unused = take("read_ahead_unused"), errors = take("read_errors"), evictions = take("evictions");
        uint64_t cacheExtents = take("cache_extents"), cacheBytes = take("cache_bytes"), limit = take("cache_limit");
        uint64_t jobs = take("restore_jobs"), failures = take("restore_failures"), restored = take("restore_bytes");
        uint64_t partitions = take("partitions");
        bool mounted = take("mount_complete") != 0, metadata = take("metadata_phase") != 0;
        char share[32] = "";
        if (diskBytes) std::snprintf(share, sizeof share, ", %.1f%% of the disk", 100.0 * recalledBytes / diskBytes);
        std::printf("disk             %s, %s of %s\n", humanSize(diskBytes).c_str(), plural(extents, "extent").c_str(),
                    humanSize(extentSize).c_str());
        std::printf("partitions       %s\n", partitions ? std::to_string(partitions).c_str() : "none");
        std::printf("recalled         %s (%s%s), %llu of them read ahead, %llu of those not read\n",
                    plural(recalled, "extent").c_str(), humanSize(recalledBytes).c_str(), share,
                    static_cast<unsigned long long>(ahead), static_cast<unsigned long long>(unused));
        std::printf("read errors      %llu\n", static_cast<unsigned long long>(errors));
        std::printf("cache            %s, %s of a %s limit; %s\n", plural(cacheExtents, "extent").c_str(),
                    humanSize(cacheBytes).c_str(), humanSize(limit).c_str(), plural(evictions, "eviction").c_str());
        std::printf("restore service  %s, %s, %s\n", plural(jobs, "job").c_str(), plural(failures, "failure").c_str(),
                    humanSize(restored).c_str());
        std::printf("phases           mount %s; %s\n", mounted ? "complete" : "not complete yet",
                    metadata ? "in the metadata phase" : "not in the metadata phase");
        // A server started with --prefetch: the mount extents an earlier run recorded.
        for (const auto& kv : unknown)
            if (kv.first == "mount_extents_prefetched") {
                std::printf("prefetched       %s recorded as mount extents, recalled ahead of the reads\n",
                            plural(take("mount_extents_prefetched"), "extent").c_str());
                break;
            }
        // A store on S3: what its objects were asked for.
        bool remote = false;
        for (const auto& kv : unknown) remote = remote || kv.first == "store_gets";
        if (remote) {
            uint64_t gets = take("store_gets"), bytes = take("store_get_bytes"), retries = take("store_retries");
            uint64_t rttUs = take("store_rtt_us"), rate = take("store_bytes_per_second"), held = take("store_held_peak");
            std::printf("store (S3)       %s, %s, %llu %s; at most %s held at once\n", plural(gets, "GET").c_str(),
                        humanSize(bytes).c_str(), static_cast<unsigned long long>(retries),
                        retries == 1 ? "retry" : "retries", humanSize(held).c_str());
            if (rate)
                std::printf("link             %.1f ms to the first byte, %s/s, as the replies measured it\n",
                            rttUs / 1000.0, humanSize(rate).c_str());
        }
        for (const auto& kv : unknown)
            std::printf("%-16s %llu\n", kv.first.c_str(), static_cast<unsigned long long>(kv.second));
    });
}

}  // namespace zxblk
