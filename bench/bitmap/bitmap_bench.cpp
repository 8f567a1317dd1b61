// Cost of one locked bit operation and of slicing a 2048-sector extent.
#include <benchmark/benchmark.h>

#include "bitmap/BitmapInfo.h"

static void BM_SetBit(benchmark::State& state) {
    CBitmapInfo b(256);
    ULONGLONG i = 0;
    for (auto _ : state) {
        b.SetBit(i++ & 2047);
    }
}
BENCHMARK(BM_SetBit);

static void BM_IsBitSet(benchmark::State& state) {
    CBitmapInfo b(256);
    ULONGLONG i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(b.IsBitSet(i++ & 2047));
}
BENCHMARK(BM_IsBitSet);

static void BM_ExtractBitmap2048Sectors(benchmark::State& state) {
    boost::shared_ptr<CBitmapInfo> src(new CBitmapInfo(256));
    for (ULONGLONG i = 0; i < 2048; i += 3) src->SetBit(i);
    boost::shared_ptr<CBitmapInfo> dst;
    for (auto _ : state) ExtractBitmap(src, dst, 0, 256);
    state.SetItemsProcessed(state.iterations() * 2048);
}
BENCHMARK(BM_ExtractBitmap2048Sectors);
