// Throughput of the write-behind queue: producers execute empty tasks and wait until
// the worker has run them all. Items per second = tasks executed and run per second.
#include <core/exec/BackendExecutor.hpp>

#include <benchmark/benchmark.h>

#include <thread>
#include <vector>

namespace {

using storage::overlayprovider::BackendExecutor;
using storage::overlayprovider::ObservableTransactionType;

constexpr long kTasks = 1'000'000;

void executeAndRun(benchmark::State& state, int producers, bool captureMetrics, double maxWeight) {
  BackendExecutor executor([] {}, maxWeight, &storage::overlayprovider::steadyNow, captureMetrics);

  for (auto _ : state) {
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p) {
      threads.emplace_back([&executor, producers] {
        for (long i = 0; i < kTasks / producers; ++i) {
          executor.execute([] {}, ObservableTransactionType::FILE_WRITE, 1);
        }
      });
    }
    for (auto& t : threads) t.join();
    executor.waitForPendingToFinish();
  }
  executor.shutdown(true);
  executor.join();
  state.SetItemsProcessed(state.iterations() * kTasks);
}

void BM_OneProducerCaptureOff(benchmark::State& state) { executeAndRun(state, 1, false, 0); }
void BM_OneProducerCaptureOn(benchmark::State& state) { executeAndRun(state, 1, true, 0); }
void BM_FourProducersCaptureOff(benchmark::State& state) { executeAndRun(state, 4, false, 0); }
void BM_FourProducersCaptureOn(benchmark::State& state) { executeAndRun(state, 4, true, 0); }
// With a weight bound that producers keep hitting.
void BM_FourProducersBoundedCaptureOff(benchmark::State& state) { executeAndRun(state, 4, false, 1000); }

BENCHMARK(BM_OneProducerCaptureOff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OneProducerCaptureOn)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FourProducersCaptureOff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FourProducersCaptureOn)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FourProducersBoundedCaptureOff)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
