#include <core/exec/TaskQueue.hpp>

#include <utility>

namespace storage::overlayprovider {

TaskQueue::TaskQueue(double maxWeight, bool captureMetrics, SteadyClockSource clock)
    : maxWeight_(maxWeight), captureMetrics_(captureMetrics), accounting_(captureMetrics, std::move(clock)) {}

void TaskQueue::push(QueueRecord record) { pushImpl(std::move(record), true); }

void TaskQueue::pushIgnoringWeightBound(QueueRecord record) { pushImpl(std::move(record), false); }

void TaskQueue::pushImpl(QueueRecord record, bool honourWeightBound) {
  {
    UniqueLock lock(mutex_);
    bool const limited = honourWeightBound && maxWeight() > 0;
    if (limited && overWeightBound()) {
      accounting_.producerHeld();
      while (overWeightBound()) weightReleased_.wait(lock.native());
      accounting_.producerReleased();
    }
    accounting_.countPush(record, limited, records_.empty());
    records_.push_back(std::move(record));
  }
  notEmpty_.notify_all();
}

QueueRecord TaskQueue::pop() {
  QueueRecord record;
  {
    UniqueLock lock(mutex_);
    while (records_.empty()) notEmpty_.wait(lock.native());
    record = std::move(records_.front());
    records_.pop_front();
    if (!record.wakeupMarker) accounting_.countPop(record, maxWeight() > 0, records_.size());
  }
  dequeued_.notify_all();
  weightReleased_.notify_all();
  return record;
}

void TaskQueue::clear() {
  Records discarded;
  {
    LockGuard lock(mutex_);
    discarded.swap(records_);
    for (auto const& record : discarded) accounting_.countDiscarded(record);
  }
}

void TaskQueue::waitUntilDrained() {
  UniqueLock lock(mutex_);
  while (!records_.empty() && !consumerClosed_) dequeued_.wait(lock.native());
}

void TaskQueue::closeConsumer() {
  {
    LockGuard lock(mutex_);
    consumerClosed_ = true;
  }
  dequeued_.notify_all();
  weightReleased_.notify_all();
}

std::size_t TaskQueue::size() const {
  LockGuard lock(mutex_);
  return records_.size();
}

double TaskQueue::currentWeight() const {
  LockGuard lock(mutex_);
  return accounting_.currentWeight();
}

void TaskQueue::setBackPressureObserver(BackPressureObserver observer) {
  LockGuard lock(mutex_);
  accounting_.setBackPressureObserver(std::move(observer));
}

void TaskQueue::logStatistics() {
  LockGuard lock(mutex_);
  accounting_.report(records_.size());
}

foundation::storage::provider::extensions::QueueFigures TaskQueue::figures() const {
  LockGuard lock(mutex_);
  return accounting_.figures(records_.size());
}

bool TaskQueue::overWeightBound() const {
  // A producer is held only while limiting is on; one whose bound is switched off
  // (maximum set to 0 or less) while it waits goes on at the next pop.
  return !consumerClosed_ && accounting_.overWeightBound(maxWeight());
}

}  // namespace storage::overlayprovider
