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
// The handle also counts the overlay's own changes on their way to the inner store: tasks
// of every type but FILE_OPEN_READONLY, EXTERNAL_EVENT and WAKEUP_FLUSH, from the moment execute() takes them
// until the executor has run them or let them go unrun. The event listener stays paused
// while that count is above zero. Given a record of own changes (recordOwnChanges), it
// reports each such change there too, with what it touches, as taken and then settled.
//
// Thread-safety: every operation may be called from any thread; `mutex_` guards the
// current executor, and no call into an executor is made with it held.
#pragma once

#include <core/exec/IExecutor.hpp>
#include <core/exec/OwnChanges.hpp>

#include <atomic>
#include <memory>
#include <mutex>

namespace storage::overlayprovider {

class SwitchableExecutor final : public IExecutor {
 public:
  // From now on calls go to `executor` (may be null).
  void set(std::shared_ptr<IExecutor> executor);
  std::shared_ptr<IExecutor> current() const;
  // From now on the changes taken are reported to `ownChanges` (may be null: none).
  void recordOwnChanges(std::shared_ptr<OwnChanges> ownChanges);

  void execute(Task task, ObservableTransactionType type, double weight) override;
  // Passes `touches` on with the task (execute passes none).
  void executeTouching(Task task, ObservableTransactionType type, double weight, Touches const& touches) override;
  bool tryRunHere(Task const& task, Touches const& touches) override;
  void shutdown(bool cancelOutstanding) override;
  void join() override;
  bool isShutdown() const override;
  std::chrono::steady_clock::time_point getLastActivityTime() const override;
  bool isQueueEmpty() const override;
  void waitForPendingToFinish() override;
  void setMaxQueueWeight(double weight) override;
  void logQueueStatistics() override;
  foundation::storage::provider::extensions::QueueFigures queueFigures() const override;

  // The overlay's changes taken by execute() and not yet run or dropped (see above).
  long changesInFlight() const { return inFlight_->load(std::memory_order_acquire); }

 private:
  mutable std::mutex mutex_;             // guards current_ and ownChanges_
  std::shared_ptr<IExecutor> current_;
  std::shared_ptr<OwnChanges> ownChanges_;
  // Shared with the tasks, which may outlive this handle in a queue being shut down.
  std::shared_ptr<std::atomic<long>> const inFlight_ = std::make_shared<std::atomic<long>>(0);
};

}  // namespace storage::overlayprovider
