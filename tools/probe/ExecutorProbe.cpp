#include <ovl/ExecutorProbe.hpp>

#include <core/exec/BackendExecutor.hpp>
#include <core/provider/OverlayOptions.hpp>

#include <chrono>

namespace ovl {

__attribute__((visibility("default"))) double executorTasksPerSecond(long tasks) {
  using storage::overlayprovider::OverlayOptions;
  // With statistics or without, as the overlay's own queue would be.
  storage::overlayprovider::BackendExecutor executor([] {}, 0, &storage::overlayprovider::steadyNow,
                                                     OverlayOptions::fromEnvironment().captureQueueMetrics);
  auto const start = std::chrono::steady_clock::now();
  for (long i = 0; i < tasks; ++i) {
    executor.execute([] {}, storage::overlayprovider::ObservableTransactionType::FILE_WRITE, 1);
  }
  executor.waitForPendingToFinish();
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  executor.shutdown(true);
  executor.join();
  return static_cast<double>(tasks) / seconds;
}

}  // namespace ovl
