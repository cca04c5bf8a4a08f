#include <core/PathLocks.hpp>

namespace storage::overlayprovider {

PathLocks::Guard::Guard(Guard&& other) noexcept : owner_(other.owner_), held_(std::move(other.held_)) {
  other.owner_ = nullptr;
}

PathLocks::Guard::~Guard() {
  if (owner_) owner_->release(held_);
}

bool PathLocks::conflicts(StorageIRI const& iri) const {
  if (held_.count(iri) != 0) return true;
  // Walking up the parents costs one set lookup per level, cheaper than testing every
  // held IRI for ancestry when many operations run at once.
  for (StorageIRI current = iri; current.hasParent();) {
    current = current.getParent();
    if (held_.count(current) != 0) return true;
  }
  return false;
}

PathLocks::Guard PathLocks::acquire(StorageIRI const& iri) {
  std::unique_lock lock(mutex_);
  released_.wait(lock, [&] { return !conflicts(iri); });
  held_.insert(iri);
  return Guard(this, {iri});
}

PathLocks::Guard PathLocks::acquirePair(StorageIRI const& first, StorageIRI const& second) {
  std::unique_lock lock(mutex_);
  released_.wait(lock, [&] { return !conflicts(first) && !conflicts(second); });
  held_.insert(first);
  held_.insert(second);
  return Guard(this, {first, second});
}

bool PathLocks::isHeld(StorageIRI const& iri) const {
  std::lock_guard lock(mutex_);
  return held_.count(iri) != 0;
}

void PathLocks::release(std::vector<StorageIRI> const& held) {
  {
    std::lock_guard lock(mutex_);
    for (auto const& iri : held) {
      auto it = held_.find(iri);
      if (it != held_.end()) held_.erase(it);
    }
  }
  released_.notify_all();
}

}  // namespace storage::overlayprovider
