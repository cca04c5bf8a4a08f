#include <core/content/FlushAttributeReads.hpp>

#include <utility>

namespace storage::overlayprovider {

void FlushAttributeReads::beginWaiting() {
  LockGuard lock(mutex_);
  ++waiting_;
}

bool FlushAttributeReads::defer(Read read) {
  LockGuard lock(mutex_);
  if (waiting_ <= 0) return false;
  deferred_.push_back(std::move(read));
  return true;
}

std::vector<FlushAttributeReads::Read> FlushAttributeReads::endWaiting() {
  LockGuard lock(mutex_);
  if (waiting_ > 0) --waiting_;
  return std::exchange(deferred_, {});
}

}  // namespace storage::overlayprovider
