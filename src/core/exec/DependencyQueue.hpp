// DependencyQueue: the weighted queue behind ParallelExecutor. Any number of lanes take
// transactions from it at once, and a transaction is handed out only when every
// transaction queued before it that it depends on has finished (see Touches):
//   - one that touches locations depends on every earlier one that touches the same
//     location, one above it or one below it, and on the latest earlier barrier;
//   - a barrier (touches nothing) depends on every earlier one.
// Among the transactions free to start, the one queued first starts first. A lane takes
// a transaction (take), runs it and reports it finished (finish); only then are the
// transactions that wait for it free to start.
//
// How the order is kept: at push, the transaction is made to wait only for the last
// unfinished transaction on each related location (which itself waits for the earlier
// ones on that location), for the last unfinished barrier, and, for a barrier, for the
// count of unfinished transactions queued since the barrier before it. Each waiting
// transaction keeps the number of transactions it still waits for; a finish lowers the
// numbers of the transactions that wait for it and frees those that reach 0.
//
// Cost, with n transactions unfinished:
//   - push: O(s log n) for a transaction with locations of s segments in all, plus
//     O(b log n) for b distinct locations with unfinished transactions below a location
//     it touches (a folder's removal waits for what is queued inside the folder);
//     a barrier O(log n);
//   - take: O(log n); finish: O((w + l) log n) for w transactions waiting for it and l
//     locations it touches. Nothing scans the queue.
//
// Weight bound and statistics: as TaskQueue, with "queued" meaning pushed and not yet
// taken: the weight of a transaction is released and its queue time measured when a
// lane takes it (QueueAccounting).
//
// Thread safety: every member function may be called from any thread. All state is
// guarded by `mutex_`, except the maximum weight (an atomic written without the mutex
// and without waking anyone, as for TaskQueue).
#pragma once

#include <core/exec/QueueAccounting.hpp>
#include <core/exec/QueueRecord.hpp>
#include <core/exec/Touches.hpp>
#include <core/util/Mutex.hpp>
#include <core/util/SteadyClock.hpp>

#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace storage::overlayprovider {

class DependencyQueue {
 public:
  using BackPressureObserver = QueueAccounting::BackPressureObserver;

  // A transaction handed to a lane: its number (for finish) and its record.
  struct Taken {
    std::uint64_t id;
    QueueRecord record;
  };

  // `maxWeight` <= 0 switches weight limiting off. `clock` must not be empty.
  DependencyQueue(double maxWeight, bool captureMetrics, SteadyClockSource clock);
  DependencyQueue(DependencyQueue const&) = delete;
  DependencyQueue& operator=(DependencyQueue const&) = delete;

  // Queues a task record (not a marker), first waiting on the weight bound (unless every
  // lane has gone, see laneLeft). Starts a busy period if nothing was queued, counts the
  // record, and wakes a lane if the record is free to start.
  void push(QueueRecord record, Touches const& touches) EXCLUDES(mutex_);

  // Blocks until a transaction is free to start or the lanes are told to stop. Returns
  // the oldest free transaction, released from the weight and counted as dequeued; or
  // nothing once stopLanes() was called.
  std::optional<Taken> take() EXCLUDES(mutex_);

  // Registers a transaction that the caller runs on its own thread at once, when nothing
  // unfinished is related to `touches` (`touches` is not a barrier and no barrier is
  // unfinished): from now on transactions related to it wait for it as for one a lane
  // runs. Returns its number, for finish; nothing when it would have to wait (or the
  // lanes stop). Not counted in the statistics and not held by the weight bound: it is
  // never queued.
  std::optional<std::uint64_t> claim(Touches const& touches) EXCLUDES(mutex_);

  // The transaction `id` (from take or claim) has finished: frees what waited for it only on it.
  void finish(std::uint64_t id) EXCLUDES(mutex_);

  // Discards every transaction not yet taken. Does not lower the current weight, does
  // not touch the counters. The records are destroyed after the mutex is released.
  void clear() EXCLUDES(mutex_);

  // Blocks while transactions are queued (not yet taken), or until every lane has gone.
  void waitUntilDrained() EXCLUDES(mutex_);

  // Blocks until every transaction queued before the call has finished, or every lane
  // has gone. Counts a wake-up marker in the statistics as TaskQueue would (the marker
  // is not queued and is not held by the weight bound).
  void waitForEarlierToFinish() EXCLUDES(mutex_);

  // From now on take() returns nothing; lanes waiting in it wake.
  void stopLanes() EXCLUDES(mutex_);

  // A lane has started; a lane leaves for good. When the last lane leaves nobody waits
  // for the lanes any longer: waits return and producers held by the weight bound are
  // let through (their transactions are never run).
  void laneJoined() EXCLUDES(mutex_);
  void laneLeft() EXCLUDES(mutex_);

  // Transactions pushed and not yet taken; those of them that wait for earlier ones;
  // those pushed and not yet finished.
  std::size_t queued() const EXCLUDES(mutex_);
  std::size_t waiting() const EXCLUDES(mutex_);
  std::size_t unfinished() const EXCLUDES(mutex_);
  double currentWeight() const EXCLUDES(mutex_);
  double maxWeight() const noexcept { return maxWeight_.load(std::memory_order_relaxed); }
  bool capturesMetrics() const noexcept { return captureMetrics_; }
  void setMaxWeight(double weight) noexcept { maxWeight_.store(weight, std::memory_order_relaxed); }
  void setBackPressureObserver(BackPressureObserver observer) EXCLUDES(mutex_);

  void logStatistics() EXCLUDES(mutex_);
  foundation::storage::provider::extensions::QueueFigures figures() const EXCLUDES(mutex_);

 private:
  struct Node {
    QueueRecord record;                     // moved out when taken
    std::vector<std::u16string> locations;  // empty for a barrier
    std::vector<std::uint64_t> waiters;     // transactions that wait for this one
    std::size_t waitingFor = 0;             // unfinished transactions this one waits for
    std::uint64_t epoch = 0;                // barriers queued before it
    bool taken = false;
  };
  // The transactions queued between two barriers.
  struct Epoch {
    std::size_t unfinished = 0;
    std::optional<std::uint64_t> closedBy;  // the barrier queued after them, once there is one
  };

  bool overWeightBound() const REQUIRES(mutex_);
  // The last unfinished transaction on each location related to one of `locations`,
  // in queue order without repeats.
  std::vector<std::uint64_t> relatedUnfinished(std::vector<std::u16string> const& locations) const REQUIRES(mutex_);
  // `waiter` waits for `id` as well.
  void addDependency(std::uint64_t id, std::uint64_t waiter) REQUIRES(mutex_);
  // One transaction that `id` waited for has finished; frees `id` at 0.
  void release(std::uint64_t id) REQUIRES(mutex_);
  // The oldest unfinished transaction's number, or the next number if there is none.
  std::uint64_t oldestUnfinished() const REQUIRES(mutex_);

  std::atomic<double> maxWeight_;
  bool const captureMetrics_;
  QueueAccounting accounting_ GUARDED_BY(mutex_);
  // Unfinished transactions by number (queue order).
  std::map<std::uint64_t, Node> nodes_ GUARDED_BY(mutex_);
  // Untaken transactions that wait for nothing, by number: the oldest is taken first.
  std::set<std::uint64_t> free_ GUARDED_BY(mutex_);
  // Location -> the last unfinished transaction that touches it.
  std::map<std::u16string, std::uint64_t> lastOn_ GUARDED_BY(mutex_);
  // Epochs with unfinished transactions.
  std::unordered_map<std::uint64_t, Epoch> epochs_ GUARDED_BY(mutex_);
  std::optional<std::uint64_t> lastBarrier_ GUARDED_BY(mutex_);  // the last unfinished barrier
  std::uint64_t epoch_ GUARDED_BY(mutex_) = 0;
  std::uint64_t nextId_ GUARDED_BY(mutex_) = 0;
  std::size_t queued_ GUARDED_BY(mutex_) = 0;  // pushed, not yet taken
  std::size_t lanes_ GUARDED_BY(mutex_) = 0;
  bool lanesGone_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;

  mutable Mutex mutex_;
  std::condition_variable freed_;           // a transaction became free, or the lanes stop
  std::condition_variable dequeued_;        // a take, or the lanes have gone
  std::condition_variable finished_;        // a finish, or the lanes have gone
  std::condition_variable weightReleased_;  // a take, or the lanes have gone
};

}  // namespace storage::overlayprovider
