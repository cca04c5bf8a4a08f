// SwitchableExecutor: an executor handle that passes every call on to whichever executor
// the provider currently uses.
//
// The provider may replace its executor after lazy initialization (switching to
// synchronous mode drains the queue and installs a SynchronousExecutor). The quota
// accountant, the event listener and the working file entries keep this handle rather
// than the executor itself, so their later transactions go to the current executor
// instead of a stopped one. With no executor set, tasks are dropped and the queue counts
// as empty.
//
// Thread-safety: every operation may be called from any thread; `mutex_` guards the
// current executor, and no call into an executor is made with it held.
#pragma once

#include <core/IExecutor.hpp>

#include <memory>
#include <mutex>

namespace storage::overlayprovider {

class SwitchableExecutor final : public IExecutor {
 public:
  // From now on calls go to `executor` (may be null).
  void set(std::shared_ptr<IExecutor> executor);
  std::shared_ptr<IExecutor> current() const;

  void execute(Task task, ObservableTransactionType type, double weight) override;
  void shutdown(bool cancelOutstanding) override;
  void join() override;
  bool isShutdown() const override;
  std::chrono::steady_clock::time_point getLastActivityTime() const override;
  bool isQueueEmpty() const override;
  void waitForPendingToFinish() override;
  void setMaxQueueWeight(double weight) override;
  void logQueueStatistics() override;

 private:
  mutable std::mutex mutex_;             // guards current_
  std::shared_ptr<IExecutor> current_;
};

}  // namespace storage::overlayprovider
