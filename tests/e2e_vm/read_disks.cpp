// Opens several disks of several stores at once through the public API and
// reads each whole from a thread of its own, in a shuffled order of pieces
// that cross extent boundaries, against its reference image:
//   read_disks CACHE_ROOT STORE,DISK,SNAPSHOT,REFERENCE...
// The disks of one store are opened from one Store. Prints one line per
// disk; exits 1 when any byte differs or any call fails.
#include <zxblk/zxblk.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

namespace {

struct Job {
    std::string store, disk, reference;
    int snapshot = -1;
    std::unique_ptr<zxblk::Disk> opened;
    std::string result;
    bool ok = false;
};

std::vector<char> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void readAll(Job& job, unsigned seed) {
    try {
        zxblk::Disk& disk = *job.opened;
        const std::vector<char> want = slurp(job.reference);
        if (want.size() != disk.size()) {
            job.result = "size " + std::to_string(disk.size()) + ", reference " + std::to_string(want.size());
            return;
        }
        // Pieces of 192 KiB: most of them straddle two extents.
        const uint64_t piece = 192 << 10;
        std::vector<uint64_t> order;
        for (uint64_t at = 0; at < disk.size(); at += piece) order.push_back(at);
        std::shuffle(order.begin(), order.end(), std::mt19937(seed));
        std::vector<char> got(piece);
        for (uint64_t at : order) {
            uint64_t n = std::min(piece, disk.size() - at);
            disk.read(at, n, got.data());
            if (!std::equal(got.begin(), got.begin() + static_cast<long>(n), want.begin() + static_cast<long>(at))) {
                job.result = "bytes differ in " + std::to_string(n) + " at " + std::to_string(at);
                return;
            }
        }
        zxblk::DiskStats s = disk.stats();
        job.result = std::to_string(disk.size()) + " bytes identical, " + std::to_string(s.extentsRecalled) + " extents recalled";
        job.ok = true;
    } catch (const std::exception& e) {
        job.result = e.what();
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: read_disks CACHE_ROOT STORE,DISK,SNAPSHOT,REFERENCE...\n");
        return 2;
    }
    std::vector<Job> jobs(static_cast<size_t>(argc - 2));
    for (size_t i = 0; i < jobs.size(); ++i) {
        std::istringstream fields(argv[i + 2]);
        std::string snapshot;
        std::getline(fields, jobs[i].store, ','), std::getline(fields, jobs[i].disk, ',');
        std::getline(fields, snapshot, ','), std::getline(fields, jobs[i].reference);
        jobs[i].snapshot = std::stoi(snapshot);
    }
    try {
        // Every disk is open before any is read: they are all open at once.
        std::map<std::string, zxblk::Store> stores;
        for (Job& job : jobs) {
            auto it = stores.find(job.store);
            if (it == stores.end()) it = stores.emplace(job.store, zxblk::Store::open(job.store)).first;
            zxblk::DiskOptions options;
            options.snapshot = job.snapshot;
            options.cacheDir = std::string(argv[1]) + "/" + job.disk + "-" + std::to_string(job.snapshot) + "-" +
                               std::to_string(&job - jobs.data());
            job.opened.reset(new zxblk::Disk(it->second.openDisk(job.disk, options)));
        }
        std::vector<std::thread> threads;
        for (size_t i = 0; i < jobs.size(); ++i) threads.emplace_back(readAll, std::ref(jobs[i]), static_cast<unsigned>(i + 1));
        for (std::thread& t : threads) t.join();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "read_disks: %s\n", e.what());
        return 1;
    }
    bool ok = true;
    for (const Job& job : jobs) {
        std::printf("%s %s %s snapshot %d: %s\n", job.ok ? "ok:" : "FAIL:", job.store.c_str(), job.disk.c_str(), job.snapshot,
                    job.result.c_str());
        ok = ok && job.ok;
    }
    return ok ? 0 : 1;
}
