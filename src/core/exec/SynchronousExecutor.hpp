// SynchronousExecutor: an executor without a queue or thread.
//
// Each task runs inline on the caller's thread, so a caller's change has reached the
// inner provider when execute() returns. Installed by the provider when the
// configuration asks for synchronous operation. Type and weight are ignored; there is no
// back-pressure and nothing is ever queued.
//
// Thread safety: execute() may be called from several threads at once (tasks then run
// concurrently, each on its caller's thread); the flag and the last activity time are
// atomics.
#pragma once

#include <core/exec/IExecutor.hpp>
#include <core/util/SteadyClock.hpp>

#include <atomic>
#include <functional>

namespace storage::overlayprovider {

class SynchronousExecutor final : public IExecutor {
 public:
  // Starts no thread. The last activity time starts at the construction time.
  explicit SynchronousExecutor(std::function<void()> idleCallback, SteadyClockSource clock = &steadyNow);

  // Unless shut down, runs `task` here and then records the last activity time; an
  // exception from the task propagates to the caller (and the idle callback is then not
  // called). Then, whether or not the task ran, calls the idle callback (an empty
  // callback throws std::bad_function_call).
  void execute(Task task, ObservableTransactionType type, double weight) override;

  // Marks the executor stopped; `cancelOutstanding` is ignored (nothing is ever queued).
  void shutdown(bool cancelOutstanding) override;

  bool isShutdown() const override { return stopped_.load(); }
  std::chrono::steady_clock::time_point getLastActivityTime() const override { return lastActivityTime_.load(); }

  // Always true.
  bool isQueueEmpty() const override { return true; }

  // These do nothing.
  void join() override {}
  void waitForPendingToFinish() override {}
  void setMaxQueueWeight(double) override {}
  void logQueueStatistics() override {}

 private:
  SteadyClockSource const clock_;
  std::function<void()> const idleCallback_;
  std::atomic<bool> stopped_{false};
  std::atomic<std::chrono::steady_clock::time_point> lastActivityTime_;
};

}  // namespace storage::overlayprovider
