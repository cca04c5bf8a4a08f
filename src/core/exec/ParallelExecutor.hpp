// ParallelExecutor: a write-behind queue with several lanes (worker threads), for a slow
// store that serves many calls at once.
//
// Each transaction says what it touches (executeTouching, see Touches); one queued
// through plain execute() touches nothing and is a barrier. Up to `lanes` transactions
// run at once, and a transaction starts only when every transaction queued before it
// that touches the same location, one above or one below it, has finished; a barrier
// waits for everything queued before it and holds back everything queued after it. With
// one lane, or with barriers only, the order is BackendExecutor's FIFO. Ordering and its
// cost: DependencyQueue.
//
// Otherwise it behaves as BackendExecutor:
//   - the weight bound: a producer waits in execute while the weight of the queued (not
//     yet started) transactions is above the maximum; the one that crosses it is
//     admitted; a transaction's weight is released when a lane starts it. The same
//     weight quirk holds (see BackendExecutor);
//   - the statistics (QueueAccounting), "queued" meaning not yet started;
//   - the idle callback runs on the producer's thread when a transaction arrives while
//     nothing is queued and no lane is busy (a lane counts as busy from the moment it
//     starts waiting for work until the transaction it got has returned);
//   - waitForPendingToFinish returns when every transaction queued before the call has
//     finished, on all lanes; unlike BackendExecutor it is not held by the weight bound;
//   - shutdown(cancel) stops accepting, discards what has not started (with cancel),
//     waits until every transaction left has started, and tells idle lanes to leave;
//     transactions still running finish before their lanes leave (join waits for them);
//   - a task that throws is abandoned silently; a transaction's task and what it holds
//     are destroyed before the transactions waiting for it may start;
//   - lifecycle and calling order: accepting -> not accepting -> stopped -> joined;
//     owners call shutdown() then join() before destruction. A task must never call
//     execute() or waitForPendingToFinish() on its own executor.
//
// Thread safety: all public members may be called from any thread, with the exceptions
// above. Queue state is guarded by the queue's mutex; flags, the busy count and the last
// activity time are atomics.
#pragma once

#include <core/exec/DependencyQueue.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/exec/Touches.hpp>
#include <core/util/Mutex.hpp>
#include <core/util/SteadyClock.hpp>

#include <atomic>
#include <cstddef>
#include <functional>
#include <thread>
#include <vector>

namespace storage::overlayprovider {

class ParallelExecutor final : public IExecutor {
 public:
  // Starts `lanes` (at least 1) worker threads at once and logs "ParallelExecutor
  // initialized with <lanes> lanes and a max queue weight of <weight>" (informational).
  // The other arguments are BackendExecutor's. Throws std::invalid_argument for 0 lanes,
  // std::system_error ("thread constructor failed") if a thread cannot be started (the
  // lanes already started are stopped and joined first).
  ParallelExecutor(std::size_t lanes, std::function<void()> idleCallback, double maxQueueWeight,
                   SteadyClockSource clock = &steadyNow, bool captureMetrics = true);
  ~ParallelExecutor() override = default;
  ParallelExecutor(ParallelExecutor const&) = delete;
  ParallelExecutor& operator=(ParallelExecutor const&) = delete;

  // A barrier (touches nothing); see executeTouching.
  void execute(Task task, ObservableTransactionType type, double weight) override;

  // Queues `task`, which touches `touches`. Once shutdown() has begun, logs as
  // BackendExecutor does and drops the task unrun, without calling the idle callback.
  void executeTouching(Task task, ObservableTransactionType type, double weight, Touches const& touches) override;

  // Runs `task` here when nothing unfinished is related to `touches` (see
  // DependencyQueue::claim); not once shutdown() has begun. A task that throws is
  // abandoned silently, as on a lane.
  bool tryRunHere(Task const& task, Touches const& touches) override;

  void shutdown(bool cancelOutstanding) override;
  // Waits for every lane to end; does nothing the second time. Never from a lane.
  void join() override;
  bool isShutdown() const override { return stopped_.load(); }
  std::chrono::steady_clock::time_point getLastActivityTime() const override { return lastActivityTime_.load(); }
  bool isQueueEmpty() const override { return queue_.queued() == 0; }
  void waitForPendingToFinish() override { queue_.waitForEarlierToFinish(); }
  void setMaxQueueWeight(double weight) override;
  void logQueueStatistics() override { queue_.logStatistics(); }
  foundation::storage::provider::extensions::QueueFigures queueFigures() const override { return queue_.figures(); }

  // Diagnostics, as BackendExecutor's: the current sum of queued weights, the number of
  // queued (not yet started) transactions, whether statistics are captured, the lanes;
  // and how many queued transactions wait for earlier ones, how many are unfinished
  // (queued or running).
  double getCurrentQueueWeight() const { return queue_.currentWeight(); }
  std::size_t getQueueSize() const { return queue_.queued(); }
  std::size_t getWaitingCount() const { return queue_.waiting(); }
  std::size_t getUnfinishedCount() const { return queue_.unfinished(); }
  bool isMetricsCaptureEnabled() const { return queue_.capturesMetrics(); }
  std::size_t lanes() const noexcept { return lanes_; }
  void setBackPressureObserver(DependencyQueue::BackPressureObserver observer) {
    queue_.setBackPressureObserver(std::move(observer));
  }

 private:
  void runLane();

  std::size_t const lanes_;
  SteadyClockSource const clock_;
  std::function<void()> const idleCallback_;
  std::atomic<bool> stopped_{false};       // set by shutdown once nothing is left to start
  std::atomic<bool> notAccepting_{false};  // set first thing in shutdown
  std::atomic<std::size_t> busyLanes_{0};  // lanes waiting for work or running a task
  std::atomic<std::chrono::steady_clock::time_point> lastActivityTime_;
  DependencyQueue queue_;
  Mutex threadMutex_;  // guards joining workers_
  std::vector<std::thread> workers_ GUARDED_BY(threadMutex_);
};

}  // namespace storage::overlayprovider
