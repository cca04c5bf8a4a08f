// QueueRecord: one task waiting in an executor's queue, with what the queue's weight
// bound and statistics need to know about it.
#pragma once

#include <core/exec/ObservableTransactionType.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace storage::overlayprovider {

struct QueueRecord {
  std::function<void()> task;
  // True for the executor's own wake-up markers (pushed by shutdown and
  // waitForPendingToFinish): their task is never run, and popping them changes neither
  // the weight nor any statistic.
  bool wakeupMarker = false;
  double weight = 0.0;
  ObservableTransactionType type = ObservableTransactionType::WAKEUP_FLUSH;
  std::chrono::steady_clock::time_point enqueueTime{};
  std::uint64_t bytes = 0;  // file content the task carries to the store

  // A task's record.
  static QueueRecord of(std::function<void()> task, ObservableTransactionType type, double weight,
                        std::chrono::steady_clock::time_point now, std::uint64_t bytes = 0) {
    QueueRecord record;
    record.bytes = bytes;
    record.task = std::move(task);
    record.weight = weight;
    record.type = type;
    record.enqueueTime = now;
    return record;
  }

  // A marker record: no task, weight 0, type WAKEUP_FLUSH, enqueued at `now`.
  static QueueRecord marker(std::chrono::steady_clock::time_point now) {
    QueueRecord record;
    record.wakeupMarker = true;
    record.enqueueTime = now;
    return record;
  }
};

}  // namespace storage::overlayprovider
