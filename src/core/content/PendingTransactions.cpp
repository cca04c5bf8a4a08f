#include <core/content/PendingTransactions.hpp>

namespace storage::overlayprovider {

void PendingTransactions::add() {
  LockGuard lock(mutex_);
  ++count_;
}

void PendingTransactions::remove() {
  {
    LockGuard lock(mutex_);
    if (count_ > 0) --count_;
  }
  drained_.notify_all();
}

bool PendingTransactions::any() const {
  LockGuard lock(mutex_);
  return count_ > 0;
}

void PendingTransactions::awaitNone(EntryTiming const& timing, EntryTiming::TimePoint deadline) {
  UniqueLock lock(mutex_);
  while (count_ > 0 && timing.now() < deadline) timing.waitUntil(lock.native(), drained_, deadline);
}

}  // namespace storage::overlayprovider
