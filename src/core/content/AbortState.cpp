#include <core/content/AbortState.hpp>

namespace storage::overlayprovider {

void AbortState::set(TimePoint now) {
  LockGuard lock(mutex_);
  time_ = now;
  set_ = true;
}

std::optional<AbortState::TimePoint> AbortState::time() const {
  LockGuard lock(mutex_);
  if (!set_) return std::nullopt;
  return time_;
}

bool AbortState::abortedSince(TimePoint since) const {
  LockGuard lock(mutex_);
  return set_ && time_ >= since;
}

}  // namespace storage::overlayprovider
