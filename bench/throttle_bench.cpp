// How closely the throttle store delivers the latency and bandwidth it is asked for.
//
// Latency: the mean time of fileExists through a throttle over the mem store, minus the
// mean time of the same call on the mem store directly, compared with the latency asked
// for (counters asked_us, added_us, error_pct; median_added_us for the typical call).
// Bandwidth: reading (and writing) a 16 MiB file through a throttle with no latency,
// compared with the rate asked for (counters asked_MBps, achieved_MBps, error_pct); and
// two streams at once, which share one link.
#include <providers/mem/MemoryProvider.hpp>
#include <providers/throttle/ThrottleProvider.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using namespace foundation::storage::provider;
using providers::mem::MemoryProvider;
using providers::throttle::ThrottleProvider;
using Clock = std::chrono::steady_clock;

constexpr long kFileSize = 16l << 20;
constexpr long kChunk = 1l << 20;

std::shared_ptr<MemoryProvider> storeWithFile() {
  auto store = std::make_shared<MemoryProvider>();
  StorageItem(store, StorageIRI(u"mem://s1/a")).createFile();
  ByteStreamOpenOptions options;
  auto out = StorageItem(store, StorageIRI(u"mem://s1/big")).openStream(options);
  std::vector<char> chunk(kChunk, 'x');
  for (long done = 0; done < kFileSize; done += kChunk) out->write(chunk.data(), kChunk);
  out->close();
  return store;
}

double meanSeconds(StorageItem const& item, int calls) {
  auto const start = Clock::now();
  for (int i = 0; i < calls; ++i) benchmark::DoNotOptimize(item.fileExists());
  return std::chrono::duration<double>(Clock::now() - start).count() / calls;
}

void BM_FileExistsLatency(benchmark::State& state) {
  auto const asked = std::chrono::microseconds(state.range(0));
  auto store = storeWithFile();
  StorageItem const direct(store, StorageIRI(u"mem://s1/a"));
  double const baseline = meanSeconds(direct, 2000);

  providers::throttle::Options options;
  options.latency = asked;
  options.bytesPerSecond = 0;
  auto throttle = std::make_shared<ThrottleProvider>(StorageItem(store, StorageIRI(u"mem://s1/")), options);
  StorageItem const throttled(throttle, StorageIRI(u"throttle", StorageIRI(u"mem://s1/"), u"/a"));

  std::vector<double> times;
  for (auto _ : state) {
    auto const start = Clock::now();
    benchmark::DoNotOptimize(throttled.fileExists());
    times.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  double total = 0;
  for (double t : times) total += t;
  double const added = total / static_cast<double>(times.size()) - baseline;
  std::sort(times.begin(), times.end());
  double const medianAdded = times[times.size() / 2] - baseline;
  double const askedSeconds = std::chrono::duration<double>(asked).count();
  state.counters["asked_us"] = askedSeconds * 1e6;
  state.counters["added_us"] = added * 1e6;
  state.counters["error_pct"] = (added - askedSeconds) / askedSeconds * 100;
  // The median shows the typical call; the mean also carries the scheduler's rare long
  // delays, which grow with the machine's load.
  state.counters["median_added_us"] = medianAdded * 1e6;
}
BENCHMARK(BM_FileExistsLatency)->Arg(1000)->Iterations(500)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileExistsLatency)->Arg(20000)->Iterations(50)->UseRealTime()->Unit(benchmark::kMillisecond);

void reportRate(benchmark::State& state, double askedBytesPerSecond, double seconds, double bytes) {
  double const achieved = bytes / seconds;
  state.counters["asked_MBps"] = askedBytesPerSecond / 1e6;
  state.counters["achieved_MBps"] = achieved / 1e6;
  state.counters["error_pct"] = (achieved - askedBytesPerSecond) / askedBytesPerSecond * 100;
  state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}

std::shared_ptr<ThrottleProvider> bandwidthThrottle(std::shared_ptr<MemoryProvider> const& store, double rate) {
  providers::throttle::Options options;
  options.latency = std::chrono::microseconds(0);
  options.bytesPerSecond = rate;
  return std::make_shared<ThrottleProvider>(StorageItem(store, StorageIRI(u"mem://s1/")), options);
}

void readAll(StorageItem const& item) {
  auto in = item.openReadOnlyStream();
  std::vector<char> buffer(kChunk);
  while (in->read(buffer.data(), kChunk) > 0) {}
  in->close();
}

void BM_StreamBandwidth(benchmark::State& state) {
  double const rate = static_cast<double>(state.range(0)) * 1e6;
  bool const writing = state.range(1) != 0;
  auto store = storeWithFile();
  auto throttle = bandwidthThrottle(store, rate);
  StorageItem const big(throttle, StorageIRI(u"throttle", StorageIRI(u"mem://s1/"), u"/big"));
  std::vector<char> chunk(kChunk, 'y');
  double seconds = 0, bytes = 0;
  for (auto _ : state) {
    auto const start = Clock::now();
    if (writing) {
      ByteStreamOpenOptions options;
      options.truncate = true;
      auto out = big.openStream(options);
      for (long done = 0; done < kFileSize; done += kChunk) out->write(chunk.data(), kChunk);
      out->close();
    } else {
      readAll(big);
    }
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
    bytes += kFileSize;
  }
  state.SetLabel(writing ? "write" : "read");
  reportRate(state, rate, seconds, bytes);
}
BENCHMARK(BM_StreamBandwidth)
    ->Args({50, 0})
    ->Args({50, 1})
    ->Args({200, 0})
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Two streams reading at once through one throttle: together they get the link's rate.
void BM_SharedLink(benchmark::State& state) {
  double const rate = 50e6;
  auto store = storeWithFile();
  auto throttle = bandwidthThrottle(store, rate);
  StorageItem const big(throttle, StorageIRI(u"throttle", StorageIRI(u"mem://s1/"), u"/big"));
  double seconds = 0, bytes = 0;
  for (auto _ : state) {
    auto const start = Clock::now();
    std::thread other([&] { readAll(big); });
    readAll(big);
    other.join();
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
    bytes += 2.0 * kFileSize;
  }
  reportRate(state, rate, seconds, bytes);
}
BENCHMARK(BM_SharedLink)->Iterations(2)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
