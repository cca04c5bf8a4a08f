// Speed of the `mem` store through StorageItem: the per-call cost of a lookup, and a
// write and read of 1 MiB through streams.
#include <providers/mem/MemoryProvider.hpp>
#include <providers/mem/SideDoor.hpp>

#include <foundation/storage/provider/StorageItem.hpp>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using foundation::storage::provider::ByteStreamOpenOptions;
using foundation::storage::provider::StorageIRI;
using foundation::storage::provider::StorageItem;
using providers::mem::MemoryProvider;

// One million fileExists calls on a file three folders down; the time per iteration is
// the time per call.
void BM_FileExists(benchmark::State& state) {
  auto store = std::make_shared<MemoryProvider>();
  store->elsewhere().createFolder(u"/docs/reports/2024");
  store->elsewhere().writeFile(u"/docs/reports/2024/q1.txt", "x");
  StorageItem const item(store, StorageIRI(u"mem://s1/docs/reports/2024/q1.txt"));
  for (auto _ : state) benchmark::DoNotOptimize(item.fileExists());
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}
BENCHMARK(BM_FileExists)->Iterations(1000000)->Unit(benchmark::kNanosecond);

// Writes 1 MiB into a file (truncating it) in 64 KiB writes, then reads it back in
// 64 KiB reads.
void BM_WriteRead1MiB(benchmark::State& state) {
  constexpr long kSize = 1 << 20;
  constexpr long kChunk = 64 << 10;
  auto store = std::make_shared<MemoryProvider>();
  StorageItem const item(store, StorageIRI(u"mem://s1/data.bin"));
  std::vector<char> data(kSize);
  for (long i = 0; i < kSize; ++i) data[static_cast<std::size_t>(i)] = static_cast<char>(i * 31);
  std::vector<char> back(kChunk);
  ByteStreamOpenOptions truncate;
  truncate.truncate = true;
  for (auto _ : state) {
    auto out = item.openStream(truncate);
    for (long done = 0; done < kSize; done += kChunk) out->write(data.data() + done, kChunk);
    out->close();
    auto in = item.openReadOnlyStream();
    long total = 0;
    for (long n; (n = in->read(back.data(), kChunk)) > 0;) total += n;
    in->close();
    if (total != kSize) state.SkipWithError("read back a different size");
    benchmark::DoNotOptimize(back.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 2 * kSize);
}
BENCHMARK(BM_WriteRead1MiB)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
