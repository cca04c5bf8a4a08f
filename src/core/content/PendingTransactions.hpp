// PendingTransactions: the count of a working file entry's queued or running FILE_WRITE
// and FILE_CLOSE transactions, and the read path's bounded wait for it to reach zero.
// Its mutex is a leaf. Thread-safe.
#pragma once

#include <core/content/EntryTiming.hpp>
#include <core/util/Mutex.hpp>

#include <condition_variable>
#include <cstdint>

namespace storage::overlayprovider {

class PendingTransactions {
 public:
  // One more is pending.
  void add() EXCLUDES(mutex_);
  // One fewer (never below 0); wakes every waiter.
  void remove() EXCLUDES(mutex_);
  // True while any is pending.
  bool any() const EXCLUDES(mutex_);
  // Waits, through `timing`, until none is pending or `deadline` has passed on its clock.
  void awaitNone(EntryTiming const& timing, EntryTiming::TimePoint deadline) EXCLUDES(mutex_);

 private:
  std::int64_t count_ GUARDED_BY(mutex_) = 0;
  mutable Mutex mutex_;
  std::condition_variable drained_;  // notified when the count drops
};

}  // namespace storage::overlayprovider
