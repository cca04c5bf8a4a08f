#include <core/exec/QueueAccounting.hpp>

#include <core/util/Logger.hpp>

#include <boost/property_tree/ptree.hpp>

#include <algorithm>
#include <string>

namespace storage::overlayprovider {

namespace {

constexpr auto kReportPeriod = std::chrono::nanoseconds(11'000'000'000);

// Whole milliseconds, truncated.
std::int64_t wholeMilliseconds(std::chrono::steady_clock::duration elapsed) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count() / 1'000'000;
}

}  // namespace

QueueAccounting::QueueAccounting(bool captureMetrics, SteadyClockSource clock)
    : captureMetrics_(captureMetrics), clock_(std::move(clock)) {
  busyStart_ = clock_();
  lastReport_ = busyStart_;
}

void QueueAccounting::producerHeld() {
  ++blockedProducers_;
  if (observer_) observer_(blockedProducers_);
}

void QueueAccounting::producerReleased() {
  --blockedProducers_;
  if (observer_) observer_(blockedProducers_);
}

void QueueAccounting::countPush(QueueRecord const& record, bool addWeight, bool queueWasEmpty) {
  if (addWeight) currentWeight_ += record.weight;
  queuedBytes_ += record.bytes;
  if (queueWasEmpty) {
    busyRecordCount_ = 0;
    busyStart_ = clock_();
    busyQueueTimeMs_ = 0;
  }
  if (captureMetrics_) {
    try {
      auto& counters = counters_[static_cast<int>(record.type)];
      ++counters.first;
      ++counters.second;
    } catch (...) {
      // Statistics never fail a push.
    }
  }
  ++busyRecordCount_;
}

void QueueAccounting::countPop(QueueRecord const& record, bool releaseWeight, std::size_t queuedNow) {
  if (releaseWeight) currentWeight_ -= record.weight;
  queuedBytes_ -= record.bytes;
  if (!captureMetrics_) return;
  try {
    auto const found = counters_.find(static_cast<int>(record.type));
    if (found == counters_.end()) {
      counters_.emplace(static_cast<int>(record.type), std::make_pair(std::uint64_t{1}, std::uint64_t{1}));
    } else {
      --found->second.first;
    }
    updateQueueTime(record, queuedNow);
  } catch (...) {
    // Statistics never fail a pop.
  }
}

void QueueAccounting::report(std::size_t queued) {
  try {
    writeReport(queued);
  } catch (...) {
    // A report that cannot be built (out of memory) is lost, not thrown at the caller.
  }
}

foundation::storage::provider::extensions::QueueFigures QueueAccounting::figures(std::size_t queued) const {
  foundation::storage::provider::extensions::QueueFigures figures;
  figures.queued = queued;
  figures.queuedBytes = queuedBytes_;
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

void QueueAccounting::updateQueueTime(QueueRecord const& record, std::size_t queuedNow) {
  bool const queueNowEmpty = queuedNow == 0;
  auto const now = clock_();
  std::int64_t const queueTimeMs = wholeMilliseconds(now - record.enqueueTime);
  if (queueTimeMs > maxQueueTimeMs_) maxQueueTimeMs_ = queueTimeMs;
  busyQueueTimeMs_ += queueTimeMs;
  totalQueueTimeMs_ += queueTimeMs;
  ++poppedTasks_;
  if (queueNowEmpty) {
    ++drains_;
    longestBusyMs_ = std::max(longestBusyMs_, wholeMilliseconds(now - busyStart_));
  }

  if (now - lastReport_ >= kReportPeriod) {
    writeReport(queuedNow);
    lastReport_ = now;
  }

  if (queueNowEmpty && getLogger().isEnabled(foundation::log::Info)) {
    boost::property_tree::ptree tree;
    tree.put("overlay.queueStats.timeToEmpty", wholeMilliseconds(now - busyStart_));
    getLogger().logJson(foundation::log::Info, tree);
  }
}

void QueueAccounting::writeReport(std::size_t queued) {
  // A busy period with no record yet gives 0/0: not-a-number, written as it is.
  double const averageQueueTimeMs =
      static_cast<double>(busyQueueTimeMs_) / static_cast<double>(busyRecordCount_);

  boost::property_tree::ptree tree;
  tree.put("overlay.queueStats.size", queued);
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
