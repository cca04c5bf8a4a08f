// TaskQueue: the weighted FIFO queue behind BackendExecutor, with its statistics (kept
// by QueueAccounting, shared with the queue of several lanes).
//
// Producers (any thread) push records; one consumer (the executor's worker) pops them in
// the order the pushes completed. Each record carries a weight; while the maximum
// weight is above 0, a producer waits before pushing as long as the current weight (the
// sum of the weights of queued records) is above the maximum. The test is made before
// the record's own weight is added, so the record that crosses the bound is admitted and
// the queue may exceed the maximum by one record's weight. There is no time-out on that
// wait: the weight bound is the executor's only back-pressure.
//
// Statistics (only while metrics capture is on; the switch is fixed at construction):
//   - per transaction type a "now" counter (records of that type waiting) and a
//     "total over time" counter (records of that type pushed since construction);
//     wake-up markers are counted up on push but never down on pop, so the WAKEUP_FLUSH
//     now counter grows by one per marker (kept that way on purpose);
//   - queue times (dequeue time minus enqueue time, whole milliseconds): the maximum
//     since construction and the total of the current busy period (a busy period starts
//     when a record is pushed into an empty queue);
//   - a report of all figures as one-line JSON at informational severity, at most once
//     per 11 seconds of dequeue activity, plus on demand (logStatistics);
//   - a "overlay.queueStats.timeToEmpty" record each time a pop of a task empties the
//     queue.
// Time is read through the injected SteadyClockSource, so tests drive the 11-second
// period and queue times by hand.
//
// Thread safety: every member function may be called from any thread. All state is
// guarded by `mutex_`, except the maximum weight, which is read under `mutex_` but written
// without it and without waking anyone: a producer held by the old bound re-examines the
// new one only at the next pop.
#pragma once

#include <core/exec/ObservableTransactionType.hpp>
#include <core/exec/QueueAccounting.hpp>
#include <core/exec/QueueRecord.hpp>
#include <core/util/Mutex.hpp>
#include <core/util/SteadyClock.hpp>

#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <boost/container/deque.hpp>
#include <boost/container/options.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>

namespace storage::overlayprovider {

class TaskQueue {
 public:
  // Told the number of producers held by the weight bound each time a producer starts
  // or stops waiting on it. Runs with the queue mutex held: it must not call back into
  // the queue or its executor, and must not throw.
  using BackPressureObserver = QueueAccounting::BackPressureObserver;

  // `maxWeight` <= 0 switches weight limiting off. `clock` must not be empty.
  TaskQueue(double maxWeight, bool captureMetrics, SteadyClockSource clock);
  TaskQueue(TaskQueue const&) = delete;
  TaskQueue& operator=(TaskQueue const&) = delete;

  // Appends `record` at the back, first waiting on the weight bound as described above
  // (unless the consumer has gone, see closeConsumer). Starts a busy period if the queue
  // was empty, counts the record, and wakes the consumer.
  void push(QueueRecord record);

  // The same, without waiting on the weight bound (a marker's weight is 0, so nothing is
  // added either). Used for the executor's shutdown marker: once the executor is
  // stopping, its worker may never pop again, and a shutdown waiting for weight that
  // only pops release would never return.
  void pushIgnoringWeightBound(QueueRecord record);

  // Consumer only. Blocks while the queue is empty, then removes and returns the front
  // record. For a task record: releases its weight (if limiting is on at this moment),
  // counts it down and updates the queue-time statistics (which may log the periodic
  // report and the time-to-empty record). Wakes waiters on drain and on weight.
  QueueRecord pop();

  // Discards every queued record. Does not lower the current weight, does not touch the
  // counters, wakes nobody. The records are destroyed after the mutex is released, so a
  // task whose captured state calls back into the executor on destruction cannot
  // deadlock.
  void clear();

  // Blocks while records are queued (waking at each pop), or until the consumer has gone.
  void waitUntilDrained();

  // Called by the consumer when it leaves for good. From then on nobody waits for it:
  // waitUntilDrained returns and producers held by the weight bound are let through
  // (their records stay queued and are never run).
  void closeConsumer();

  std::size_t size() const;
  double currentWeight() const;
  double maxWeight() const noexcept { return maxWeight_.load(std::memory_order_relaxed); }
  bool capturesMetrics() const noexcept { return captureMetrics_; }

  // Stores a new maximum without taking the mutex and without waking waiters.
  void setMaxWeight(double weight) noexcept { maxWeight_.store(weight, std::memory_order_relaxed); }

  void setBackPressureObserver(BackPressureObserver observer);

  // Writes the statistics report (see the header comment) at informational severity.
  // Takes the queue mutex, so it waits for a push or pop in progress.
  void logStatistics();

  // The figures of the queue since construction (zero where metrics capture is off, but
  // for the number queued).
  foundation::storage::provider::extensions::QueueFigures figures() const;

 private:
  // Records are stored by value in blocks of 64, so pushing and popping allocate
  // nothing per record beyond the task's own function object.
  using Records = boost::container::deque<
      QueueRecord, void, boost::container::deque_options<boost::container::block_size<64u>>::type>;

  void pushImpl(QueueRecord record, bool honourWeightBound) EXCLUDES(mutex_);
  // Whether a producer waits on the weight bound now.
  bool overWeightBound() const REQUIRES(mutex_);

  // Written without mutex_ (see setMaxWeight); read under it.
  std::atomic<double> maxWeight_;
  bool const captureMetrics_;
  QueueAccounting accounting_ GUARDED_BY(mutex_);
  Records records_ GUARDED_BY(mutex_);

  mutable Mutex mutex_;
  std::condition_variable notEmpty_;        // signalled after each push
  std::condition_variable dequeued_;        // signalled after each pop and when the consumer goes
  std::condition_variable weightReleased_;  // likewise; waited on by producers over the bound
  bool consumerClosed_ GUARDED_BY(mutex_) = false;
};

}  // namespace storage::overlayprovider
