// Throughput of laying a 1 MiB extent into a file through the restore target.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"

namespace {

const unsigned kExtent = 1 << 20;
const unsigned kCall = 64 << 10;
const std::string kPath = "/dev/shm/zxblk_bench_extent_" + std::to_string(getpid());

enum Mode { Plain, HoleBitmap, SparseSectors, WholeHole };

void run(benchmark::State& state, Mode mode) {
    std::vector<unsigned char> data(kCall, 0x5A);
    std::vector<unsigned char> bitmap(512, 0xAA);  // every other sector present
    boost::shared_ptr<CBitmapInfo> sparse(new CBitmapInfo(kExtent / 512 / 8));
    for (unsigned s = 0; s < kExtent / 512; s += 4) sparse->SetBit(s);
    for (auto _ : state) {
        CExtentRestoreTarget t(kPath, kExtent, 512, false);
        if (mode == HoleBitmap) t.SetBitmapInExtent();
        if (mode == SparseSectors) t.SetSectorsToWrite(sparse);
        t.Open(nullptr);
        if (mode == HoleBitmap) t.Write(bitmap.data(), 512);
        if (mode == WholeHole) {
            t.WriteHole(kExtent);
        } else {
            for (unsigned off = 0; off < kExtent; off += kCall) t.Write(data.data(), kCall);
        }
        t.Close(false);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kExtent);
    unlink(kPath.c_str());
}

}  // namespace

BENCHMARK_CAPTURE(run, plain_64KiB_writes, Plain)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, hole_bitmap_applied, HoleBitmap)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, sparse_sectors_to_write, SparseSectors)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(run, whole_extent_hole, WholeHole)->Unit(benchmark::kMillisecond);
