#include <core/exec/DependencyQueue.hpp>

#include <algorithm>
#include <utility>

namespace storage::overlayprovider {

DependencyQueue::DependencyQueue(double maxWeight, bool captureMetrics, SteadyClockSource clock)
    : maxWeight_(maxWeight), captureMetrics_(captureMetrics), accounting_(captureMetrics, std::move(clock)) {}

void DependencyQueue::push(QueueRecord record, Touches const& touches) {
  bool free = false;
  {
    UniqueLock lock(mutex_);
    bool const limited = maxWeight() > 0;
    if (limited && overWeightBound()) {
      accounting_.producerHeld();
      while (overWeightBound()) weightReleased_.wait(lock.native());
      accounting_.producerReleased();
    }
    accounting_.countPush(record, limited, queued_ == 0);

    std::uint64_t const id = nextId_++;
    Node& node = nodes_.emplace_hint(nodes_.end(), id, Node{})->second;
    node.record = std::move(record);
    node.locations = touches.locations();
    node.epoch = epoch_;
    ++queued_;
    if (lastBarrier_) addDependency(*lastBarrier_, id);

    if (touches.isBarrier()) {
      // Waits for every unfinished transaction queued since the barrier before it (and
      // for that barrier, which they wait for too, through addDependency above).
      // The epoch's last finish releases the barrier once (see finish).
      auto const epoch = epochs_.find(epoch_);
      if (epoch != epochs_.end()) {
        ++node.waitingFor;
        epoch->second.closedBy = id;
      }
      lastBarrier_ = id;
      ++epoch_;
    } else {
      ++epochs_[epoch_].unfinished;
      for (auto const earlier : relatedUnfinished(node.locations)) addDependency(earlier, id);
      for (auto const& location : node.locations) lastOn_[location] = id;
    }
    if (node.waitingFor == 0) {
      free_.insert(id);
      free = true;
    }
  }
  if (free) freed_.notify_one();
}

std::optional<std::uint64_t> DependencyQueue::claim(Touches const& touches) {
  LockGuard lock(mutex_);
  if (touches.isBarrier() || lastBarrier_ || stopping_) return std::nullopt;
  if (!relatedUnfinished(touches.locations()).empty()) return std::nullopt;
  std::uint64_t const id = nextId_++;
  Node& node = nodes_.emplace_hint(nodes_.end(), id, Node{})->second;
  node.locations = touches.locations();
  node.epoch = epoch_;
  node.taken = true;
  ++epochs_[epoch_].unfinished;
  for (auto const& location : node.locations) lastOn_[location] = id;
  return id;
}

std::vector<std::uint64_t> DependencyQueue::relatedUnfinished(std::vector<std::u16string> const& locations) const {
  // The last unfinished transaction on each related location: the same location, each
  // one above it, each one below it. Each of those waits for the earlier ones on its own
  // location, so waiting for them is waiting for every related one.
  std::vector<std::uint64_t> before;
  auto const lastOn = [&](std::u16string const& location) REQUIRES(mutex_) {
    auto const found = lastOn_.find(location);
    if (found != lastOn_.end()) before.push_back(found->second);
  };
  for (auto const& location : locations) {
    lastOn(location);
    for (std::size_t slash = location.find(u'/'); slash != std::u16string::npos;
         slash = location.find(u'/', slash + 1)) {
      if (slash > 0) lastOn(location.substr(0, slash));
    }
    // Below: the locations that begin with location + '/' ('0' follows '/').
    auto const first = lastOn_.lower_bound(location + u'/');
    auto const end = lastOn_.lower_bound(location + u'0');
    for (auto it = first; it != end; ++it) before.push_back(it->second);
  }
  std::sort(before.begin(), before.end());
  before.erase(std::unique(before.begin(), before.end()), before.end());
  return before;
}

std::optional<DependencyQueue::Taken> DependencyQueue::take() {
  std::optional<Taken> taken;
  {
    UniqueLock lock(mutex_);
    while (free_.empty() && !stopping_) freed_.wait(lock.native());
    if (stopping_) return std::nullopt;
    std::uint64_t const id = *free_.begin();
    free_.erase(free_.begin());
    Node& node = nodes_.at(id);
    node.taken = true;
    --queued_;
    taken.emplace(Taken{id, std::move(node.record)});
    accounting_.countPop(taken->record, maxWeight() > 0, queued_);
  }
  dequeued_.notify_all();
  weightReleased_.notify_all();
  return taken;
}

void DependencyQueue::finish(std::uint64_t id) {
  std::size_t released = 0;
  {
    LockGuard lock(mutex_);
    auto const found = nodes_.find(id);
    if (found == nodes_.end()) return;
    std::size_t const freeBefore = free_.size();
    Node node = std::move(found->second);
    nodes_.erase(found);
    for (auto const waiter : node.waiters) release(waiter);
    for (auto const& location : node.locations) {
      auto const last = lastOn_.find(location);
      if (last != lastOn_.end() && last->second == id) lastOn_.erase(last);
    }
    if (node.locations.empty()) {
      if (lastBarrier_ == id) lastBarrier_.reset();
    } else {
      auto const epoch = epochs_.find(node.epoch);
      if (epoch != epochs_.end() && --epoch->second.unfinished == 0) {
        auto const closedBy = epoch->second.closedBy;
        epochs_.erase(epoch);
        if (closedBy) release(*closedBy);
      }
    }
    released = free_.size() - freeBefore;
  }
  // One lane per transaction that may now start: waking every idle lane for each finished
  // transaction cost more than the small transactions themselves.
  for (std::size_t i = 0; i < released; ++i) freed_.notify_one();
  finished_.notify_all();
}

void DependencyQueue::clear() {
  std::vector<QueueRecord> discarded;
  {
    LockGuard lock(mutex_);
    for (auto it = nodes_.begin(); it != nodes_.end();) {
      Node& node = it->second;
      if (node.taken) {
        ++it;
        continue;
      }
      accounting_.countDiscarded(node.record);
      discarded.push_back(std::move(node.record));
      if (node.locations.empty()) {
        if (lastBarrier_ == it->first) lastBarrier_.reset();
      } else {
        // The barrier closing its epoch, if any, was queued later and goes too.
        auto const epoch = epochs_.find(node.epoch);
        if (epoch != epochs_.end() && --epoch->second.unfinished == 0) epochs_.erase(epoch);
        for (auto const& location : node.locations) {
          auto const last = lastOn_.find(location);
          if (last != lastOn_.end() && last->second == it->first) lastOn_.erase(last);
        }
      }
      it = nodes_.erase(it);
    }
    free_.clear();
    queued_ = 0;
  }
}

void DependencyQueue::waitUntilDrained() {
  UniqueLock lock(mutex_);
  while (queued_ > 0 && !lanesGone_) dequeued_.wait(lock.native());
}

void DependencyQueue::waitForEarlierToFinish() {
  UniqueLock lock(mutex_);
  accounting_.countPush(QueueRecord::marker(accounting_.now()), false, queued_ == 0);
  std::uint64_t const target = nextId_;
  while (!lanesGone_ && oldestUnfinished() < target) finished_.wait(lock.native());
}

void DependencyQueue::stopLanes() {
  {
    LockGuard lock(mutex_);
    stopping_ = true;
  }
  freed_.notify_all();
}

void DependencyQueue::laneJoined() {
  LockGuard lock(mutex_);
  ++lanes_;
}

void DependencyQueue::laneLeft() {
  {
    LockGuard lock(mutex_);
    if (--lanes_ == 0) lanesGone_ = true;
  }
  dequeued_.notify_all();
  finished_.notify_all();
  weightReleased_.notify_all();
}

std::size_t DependencyQueue::queued() const {
  LockGuard lock(mutex_);
  return queued_;
}

std::size_t DependencyQueue::waiting() const {
  LockGuard lock(mutex_);
  return queued_ - free_.size();
}

std::size_t DependencyQueue::unfinished() const {
  LockGuard lock(mutex_);
  return nodes_.size();
}

double DependencyQueue::currentWeight() const {
  LockGuard lock(mutex_);
  return accounting_.currentWeight();
}

void DependencyQueue::setBackPressureObserver(BackPressureObserver observer) {
  LockGuard lock(mutex_);
  accounting_.setBackPressureObserver(std::move(observer));
}

void DependencyQueue::logStatistics() {
  LockGuard lock(mutex_);
  accounting_.report(queued_);
}

foundation::storage::provider::extensions::QueueFigures DependencyQueue::figures() const {
  LockGuard lock(mutex_);
  return accounting_.figures(queued_);
}

bool DependencyQueue::overWeightBound() const {
  return !lanesGone_ && accounting_.overWeightBound(maxWeight());
}

void DependencyQueue::addDependency(std::uint64_t id, std::uint64_t waiter) {
  nodes_.at(id).waiters.push_back(waiter);
  ++nodes_.at(waiter).waitingFor;
}

void DependencyQueue::release(std::uint64_t id) {
  auto const found = nodes_.find(id);
  if (found == nodes_.end()) return;  // discarded by clear
  if (--found->second.waitingFor == 0 && !found->second.taken) free_.insert(id);
}

std::uint64_t DependencyQueue::oldestUnfinished() const {
  return nodes_.empty() ? nextId_ : nodes_.begin()->first;
}

}  // namespace storage::overlayprovider
