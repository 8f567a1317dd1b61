// CPU per recalled MiB of the whole recall path over a store in a folder
// whose snapshot file is in the page cache: the restore service reads and
// checks each block, the provider lays the extent into a temporary file and
// the host moves it into its cache. Time is that of the whole process (the
// recalls run on the service's workers), divided by the MiB recalled.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host/disk_host.h"
#include "store/importer.h"
#include "store/storage.h"
#include "support/vhd_writer.h"

namespace {

const uint64_t kExtent = 1 << 20;
const double kTargetMsPerMiB = 0.5;

double processCpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

void recallWholeDisk(benchmark::State& state) {
    std::string pattern = (std::filesystem::temp_directory_path() / "zxblk_recall_bench_XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (!::mkdtemp(name.data())) return state.SkipWithError("cannot make a folder for the store");
    const std::string dir = name.data();
    vhdtest::ChainPlan plan;
    plan.size = 64 << 20;
    plan.children = 0;
    plan.seed = 5;
    auto snaps = vhdtest::writeChain(dir, plan);
    zxblk::ImportSettings settings;
    settings.extentSize = static_cast<int64_t>(kExtent);
    zxblk::importImages(*zxblk::openFolderStorage(dir + "/store"), "d", {snaps[0].vhd}, settings);
    auto services = zxblk::StoreServices::open(zxblk::openFolderStorage(dir + "/store"));
    zxblk::HostOptions options;
    options.disk = "d";
    options.cacheDir = dir + "/cache";
    uint64_t recalled = 0;
    double cpu = 0;
    {
        zxblk::DiskHost host(services, options);
        // One untimed pass brings the snapshot file into the page cache.
        for (uint64_t e = 0; e < host.extentCount(); ++e) host.acquire(e).reset(), host.forget(e);
        const uint64_t before = host.stats().extentsRecalled;
        for (auto _ : state) {
            double t0 = processCpuSeconds();
            for (uint64_t e = 0; e < host.extentCount(); ++e) {
                host.acquire(e).reset();
                host.forget(e);
            }
            cpu += processCpuSeconds() - t0;
        }
        recalled = host.stats().extentsRecalled - before;
    }
    services.reset();
    std::filesystem::remove_all(dir);
    const double mib = double(recalled) * kExtent / (1 << 20);
    const double msPerMiB = mib ? cpu * 1e3 / mib : 0;
    state.counters["cpu_ms_per_MiB"] = msPerMiB;
    state.SetBytesProcessed(static_cast<int64_t>(recalled * kExtent));
    state.SetLabel(std::string(msPerMiB < kTargetMsPerMiB ? "PASS" : "MISS") + " (target < 0.5 ms CPU per MiB)");
}

}  // namespace

BENCHMARK(recallWholeDisk)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
