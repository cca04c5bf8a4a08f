// QueueAccounting: the weight and the statistics of a task queue, kept apart from how the
// queue orders its records, so that the single-worker FIFO (TaskQueue) and the
// dependency-ordered queue of several lanes (DependencyQueue) count alike.
//
// What it keeps (see TaskQueue for the meaning of each figure): the current weight, the
// producers held by the weight bound and their observer, the per-type "now" and "total
// over time" counters, the queue times, the busy periods, the periodic and on-demand
// reports and the time-to-empty record.
//
// "Queued" means pushed and not yet dequeued (started); the owner says how many records
// that is, and whether a push found the queue empty or a pop left it empty.
//
// Thread safety: none of its own. The owner keeps it under the owner's queue mutex and
// calls every member with that mutex held. The maximum weight is not kept here: the
// owner stores it in an atomic written without its mutex, and hands the value read under
// the mutex to the calls that need it.
#pragma once

#include <core/exec/ObservableTransactionType.hpp>
#include <core/exec/QueueRecord.hpp>
#include <core/util/SteadyClock.hpp>

#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace storage::overlayprovider {

class QueueAccounting {
 public:
  // Told the number of producers held by the weight bound each time a producer starts
  // or stops waiting on it. Runs with the owner's queue mutex held: it must not call
  // back into the queue or its executor, and must not throw.
  using BackPressureObserver = std::function<void(std::size_t blockedProducers)>;

  // `clock` must not be empty.
  QueueAccounting(bool captureMetrics, SteadyClockSource clock);

  bool capturesMetrics() const noexcept { return captureMetrics_; }
  std::chrono::steady_clock::time_point now() const { return clock_(); }

  // Whether a producer waits now, given the maximum read by the owner: limiting is on
  // (`maxWeight` > 0) and the current weight is above it.
  bool overWeightBound(double maxWeight) const { return maxWeight > 0 && currentWeight_ > maxWeight; }
  double currentWeight() const { return currentWeight_; }

  // A producer starts or stops waiting on the weight bound (the observer is told).
  void producerHeld();
  void producerReleased();
  void setBackPressureObserver(BackPressureObserver observer) { observer_ = std::move(observer); }

  // `record` is being appended. `addWeight`: limiting was on when it was admitted, so its
  // weight counts. `queueWasEmpty`: nothing was queued, so a busy period starts. Counts
  // markers as well as tasks (markers add to the WAKEUP_FLUSH counters, which pops never
  // lower). Statistics never fail: their exceptions are swallowed.
  void countPush(QueueRecord const& record, bool addWeight, bool queueWasEmpty);

  // A task record (not a marker) has been dequeued, leaving `queuedNow` records queued.
  // `releaseWeight`: limiting is on at this moment, so its weight is subtracted. Updates
  // the counters and queue times, and may log the periodic report and (when the queue
  // is now empty) the time-to-empty record.
  void countPop(QueueRecord const& record, bool releaseWeight, std::size_t queuedNow);

  // A record discarded unrun (a cancelling shutdown): its payload bytes no longer wait.
  void countDiscarded(QueueRecord const& record) { queuedBytes_ -= record.bytes; }

  // Writes the statistics report at informational severity; `queued` records wait.
  // Failures to build it are swallowed.
  void report(std::size_t queued);

  // The figures since construction; `queued` records wait.
  foundation::storage::provider::extensions::QueueFigures figures(std::size_t queued) const;

 private:
  void updateQueueTime(QueueRecord const& record, std::size_t queuedNow);
  void writeReport(std::size_t queued);

  double currentWeight_ = 0.0;         // may go negative, see BackendExecutor
  std::uint64_t queuedBytes_ = 0;      // payload bytes of the records waiting now
  std::int64_t busyQueueTimeMs_ = 0;   // total queue time of the current busy period
  std::int64_t maxQueueTimeMs_ = 0;    // never reset
  std::int64_t totalQueueTimeMs_ = 0;  // never reset
  std::uint64_t poppedTasks_ = 0;      // never reset
  std::uint64_t drains_ = 0;           // busy periods ended, never reset
  std::int64_t longestBusyMs_ = 0;     // never reset
  std::uint64_t busyRecordCount_ = 0;  // records pushed in the busy period, markers too
  std::chrono::steady_clock::time_point busyStart_;
  std::chrono::steady_clock::time_point lastReport_;
  bool const captureMetrics_;
  // Transaction type (as its integer) -> (now counter, total-over-time counter).
  std::map<int, std::pair<std::uint64_t, std::uint64_t>> counters_;
  std::size_t blockedProducers_ = 0;
  BackPressureObserver observer_;
  SteadyClockSource const clock_;
};

}  // namespace storage::overlayprovider
