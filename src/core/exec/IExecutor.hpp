// IExecutor: where the overlay hands the backend transactions it does not perform on
// the caller's thread.
//
// The provider owns one executor and shares it with the working file entries, the
// metadata cache, the quota accountant and the event listener. Implementations:
// BackendExecutor (a weighted FIFO queue with one worker thread: write-behind),
// ParallelExecutor (the same with several lanes, in the order of related transactions)
// and SynchronousExecutor (runs each task inline on the caller's thread).
//
// Calling order required by owners: execute() any number of times, then shutdown(),
// then join(), then destruction.
#pragma once

#include <core/exec/ObservableTransactionType.hpp>
#include <core/exec/Touches.hpp>

#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <chrono>
#include <functional>
#include <utility>

namespace storage::overlayprovider {

class IExecutor {
 public:
  // A backend transaction: takes nothing, returns nothing, reports its own failures.
  using Task = std::function<void()>;

  virtual ~IExecutor() = default;

  // Queues (or runs) `task`. `type` labels it for diagnostics and statistics; `weight`
  // counts against the executor's maximum queue weight. Returns nothing: a task refused
  // because the executor is shutting down is dropped (and logged), not reported.
  virtual void execute(Task task, ObservableTransactionType type, double weight) = 0;

  // The same, for a task that touches `touches` in the inner store: an executor that runs
  // several tasks at once (ParallelExecutor) keeps the order of related ones only. An
  // executor that runs one task at a time ignores `touches`.
  virtual void executeTouching(Task task, ObservableTransactionType type, double weight, Touches const& touches) {
    (void)touches;
    execute(std::move(task), type, weight);
  }

  // Runs `task`, which touches `touches`, on the caller's thread at once when the
  // executor runs several tasks at once and nothing queued or running is related to
  // `touches`; tasks queued meanwhile that are related wait for it. Returns whether it
  // ran; when it returns false the caller queues the task. The default never runs it.
  virtual bool tryRunHere(Task const& task, Touches const& touches) {
    (void)task;
    (void)touches;
    return false;
  }

  // Stops accepting tasks. With `cancelOutstanding`, tasks still queued are discarded
  // unrun; without it they still run.
  virtual void shutdown(bool cancelOutstanding) = 0;

  // Waits for the worker thread (if any) to end. Call after shutdown().
  virtual void join() = 0;

  // True once shutdown() has stopped the executor.
  virtual bool isShutdown() const = 0;

  // When the last task finished normally; the construction time if none has.
  virtual std::chrono::steady_clock::time_point getLastActivityTime() const = 0;

  // True when no task is queued (a task being run is no longer queued).
  virtual bool isQueueEmpty() const = 0;

  // Blocks until every task queued before the call has finished.
  virtual void waitForPendingToFinish() = 0;

  // Changes the maximum queue weight at run time; 0 or less switches limiting off.
  virtual void setMaxQueueWeight(double weight) = 0;

  // Writes the queue statistics to the log as one-line JSON.
  virtual void logQueueStatistics() = 0;

  // The queue's figures since construction; all zero for an executor without a queue.
  virtual foundation::storage::provider::extensions::QueueFigures queueFigures() const { return {}; }
};

}  // namespace storage::overlayprovider
