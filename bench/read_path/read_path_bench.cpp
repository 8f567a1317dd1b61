// Extents per second through readData with an in-memory scripted restore
// service: a plain copy, and a differencing copy whose every other sector
// comes from its parent.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/ZxBlkBackingStore.h"
#include "support_services/test_services.h"
#include "vhd/ZxBlkVhd.h"

namespace {

const long long kExtent = 1 << 20;

void run(benchmark::State& state, bool differencing) {
    std::string dir = "/dev/shm/zxblk_bench_read_" + std::to_string(getpid());
    ZxBlkBackingStore store(dir, 0);
    auto records = std::make_shared<zxtest::MapRecordsService>();
    records->subclients[1] = AppIdInfo();
    auto lookup = std::make_shared<zxtest::MapExtentLookupService>();
    std::vector<unsigned char> data(kExtent, 0x42), half(512, 0xAA), all(512, 0xFF);
    auto restore = std::make_shared<zxtest::ScriptedRestoreService>([&](const zxblk::RecallJob& job) {
        bool child = job.srcPath.find("/child/") != std::string::npos;
        return zxtest::streamOf(data, differencing ? (child ? &half : &all) : nullptr, 65536);
    });
    zxtest::useRecords(records);
    zxtest::useLookup(lookup);
    zxtest::useRestore(restore);
    {
        ZxBlkVhd disk("bench", "/bench");
        if (differencing) disk.addToBrowseStructList(kExtent, 0, 512, "", "/base", 13);
        disk.addToBrowseStructList(differencing ? kExtent + 512 : kExtent, 0, 512, "", "/child", differencing ? 14 : 7);
        disk.setDiskParams(kExtent, 1LL << 40, 512, "id");
        SpecialOptsRecord rec;
        rec.appId = 1;
        FBRCtxSpecialOpts opts{&rec};
        disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
        disk.setRecallStore(&store);
        disk.connect();
        long long extent = 0;
        for (auto _ : state) {
            lookup->answers[{"/child", (unsigned long long)extent}] = {0, 1, 2};
            lookup->answers[{"/base", (unsigned long long)extent}] = {0, 1, 2};
            long len = 1;
            unsigned char* buf = new unsigned char(0);
            disk.readData(&disk, extent * kExtent, &len, &buf);
            delete buf;
            store.removeExtent(extent);
            ++extent;
        }
        state.SetItemsProcessed(state.iterations());
        state.SetBytesProcessed(state.iterations() * kExtent);
    }
    zxtest::useRestore(nullptr);
    restore.reset();
    std::system(("rm -rf " + dir).c_str());
}

}  // namespace

BENCHMARK_CAPTURE(run, plain_copy, false)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(run, differencing_half_in_parent, true)->Unit(benchmark::kMillisecond)->UseRealTime();
