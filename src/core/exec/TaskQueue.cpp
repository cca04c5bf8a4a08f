#include <core/exec/TaskQueue.hpp>

#include <core/util/Logger.hpp>

#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace storage::overlayprovider {

namespace {

constexpr auto kReportPeriod = std::chrono::nanoseconds(11'000'000'000);

// Whole milliseconds, truncated.
std::int64_t wholeMilliseconds(std::chrono::steady_clock::duration elapsed) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 1'000'000;
}

}  // namespace

TaskQueue::TaskQueue(double maxWeight, bool captureMetrics, SteadyClockSource clock)
    : maxWeight_(maxWeight), captureMetrics_(captureMetrics), clock_(std::move(clock)) {
  busyStart_ = clock_();
  lastReport_ = busyStart_;
}

void TaskQueue::push(QueueRecord record) { pushImpl(std::move(record), true); }

void TaskQueue::pushIgnoringWeightBound(QueueRecord record) { pushImpl(std::move(record), false); }

void TaskQueue::pushImpl(QueueRecord record, bool honourWeightBound) {
  {
    UniqueLock lock(mutex_);
    if (honourWeightBound && maxWeight() > 0) {
      if (overWeightBound()) {
        ++blockedProducers_;
        notifyObserver();
        while (overWeightBound()) weightReleased_.wait(lock.native());
        --blockedProducers_;
        notifyObserver();
      }
      currentWeight_ += record.weight;
    }
    if (records_.empty()) {
      busyRecordCount_ = 0;
      busyStart_ = clock_();
      busyQueueTimeMs_ = 0;
    }
    if (captureMetrics_) {
      try {
        countPush(record.type);
      } catch (...) {
        // Statistics never fail a push.
      }
    }
    records_.push_back(std::move(record));
    ++busyRecordCount_;
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
    if (!record.wakeupMarker) {
      if (maxWeight() > 0) currentWeight_ -= record.weight;
      if (captureMetrics_) {
        try {
          countPop(record.type);
          updateQueueTime(record);
        } catch (...) {
          // Statistics never fail a pop.
        }
      }
    }
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
  return currentWeight_;
}

void TaskQueue::setBackPressureObserver(BackPressureObserver observer) {
  LockGuard lock(mutex_);
  observer_ = std::move(observer);
}

void TaskQueue::logStatistics() {
  LockGuard lock(mutex_);
  try {
    report();
  } catch (...) {
    // A report that cannot be built (out of memory) is lost, not thrown at the caller.
  }
}

foundation::storage::provider::extensions::QueueFigures TaskQueue::figures() const {
  LockGuard lock(mutex_);
  foundation::storage::provider::extensions::QueueFigures figures;
  figures.queued = records_.size();
  figures.drains = drains_;
  figures.longestBusyPeriodMs = longestBusyMs_;
  figures.longestWaitMs = maxQueueTimeMs_;
  figures.averageWaitMs =
      poppedTasks_ == 0 ? 0.0 : static_cast<double>(totalQueueTimeMs_) / static_cast<double>(poppedTasks_);
  for (auto const type : kStatisticsReportOrder) {
    auto const found = counters_.find(static_cast<int>(type));
    if (found != counters_.end() && found->second.second != 0) {
      figures.transactions[std::string(statisticsKeyWord(type))] = found->second.second;
    }
  }
  return figures;
}

bool TaskQueue::overWeightBound() const {
  // A producer is held only while limiting is on; one whose bound is switched off
  // (maximum set to 0 or less) while it waits goes on at the next pop.
  double const max = maxWeight();
  return !consumerClosed_ && max > 0 && currentWeight_ > max;
}

void TaskQueue::notifyObserver() {
  if (observer_) observer_(blockedProducers_);
}

void TaskQueue::countPush(ObservableTransactionType type) {
  auto& counters = counters_[static_cast<int>(type)];
  ++counters.first;
  ++counters.second;
}

void TaskQueue::countPop(ObservableTransactionType type) {
  auto const found = counters_.find(static_cast<int>(type));
  if (found == counters_.end()) {
    counters_.emplace(static_cast<int>(type), std::make_pair(std::uint64_t{1}, std::uint64_t{1}));
  } else {
    --found->second.first;
  }
}

void TaskQueue::updateQueueTime(QueueRecord const& record) {
  auto const now = clock_();
  std::int64_t const queueTimeMs = wholeMilliseconds(now - record.enqueueTime);
  if (queueTimeMs > maxQueueTimeMs_) maxQueueTimeMs_ = queueTimeMs;
  busyQueueTimeMs_ += queueTimeMs;
  totalQueueTimeMs_ += queueTimeMs;
  ++poppedTasks_;
  if (records_.empty()) {
    ++drains_;
    longestBusyMs_ = std::max(longestBusyMs_, wholeMilliseconds(now - busyStart_));
  }

  if (now - lastReport_ >= kReportPeriod) {
    report();
    lastReport_ = now;
  }

  if (records_.empty() && getLogger().isEnabled(foundation::log::Info)) {
    boost::property_tree::ptree tree;
    tree.put("overlay.queueStats.timeToEmpty", wholeMilliseconds(now - busyStart_));
    getLogger().logJson(foundation::log::Info, tree);
  }
}

void TaskQueue::report() {
  // A busy period with no record yet gives 0/0: not-a-number, written as it is.
  double const averageQueueTimeMs =
      static_cast<double>(busyQueueTimeMs_) / static_cast<double>(busyRecordCount_);

  boost::property_tree::ptree tree;
  tree.put("overlay.queueStats.size", records_.size());
  tree.put("overlay.queueStats.weight", currentWeight_);
  tree.put("overlay.queueStats.avQTime_ms", averageQueueTimeMs);
  tree.put("overlay.queueStats.maxQTime_ms", maxQueueTimeMs_);
  // Every lookup below creates a missing entry with both counters at 0.
  std::string key;
  for (auto const type : kStatisticsReportOrder) {
    key = "overlay.queueStats.transaction.now.";
    key += statisticsKeyWord(type);
    tree.put(key, counters_[static_cast<int>(type)].first);
  }
  for (auto const type : kStatisticsReportOrder) {
    key = "overlay.queueStats.transaction.totalOverTime.";
    key += statisticsKeyWord(type);
    tree.put(key, counters_[static_cast<int>(type)].second);
  }
  getLogger().logJson(foundation::log::Info, tree);
}

}  // namespace storage::overlayprovider
