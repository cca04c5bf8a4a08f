// AbortState: whether and when a working file entry was aborted, and whether a
// write-behind payload failed for good ("aborted due to a write problem"). The abort
// time is under a leaf mutex; the write problem is a flag of its own. Thread-safe.
#pragma once

#include <core/util/Mutex.hpp>

#include <atomic>
#include <chrono>
#include <optional>

namespace storage::overlayprovider {

class AbortState {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // Aborted at `now`: every call moves the abort time.
  void set(TimePoint now) EXCLUDES(mutex_);
  // The last abort time, or nothing if set() was never called.
  std::optional<TimePoint> time() const EXCLUDES(mutex_);
  // True when set() was called at or after `since`.
  bool abortedSince(TimePoint since) const EXCLUDES(mutex_);

  // A payload failed for good; for ever after.
  void setWriteProblem() { writeProblem_.store(true); }
  bool hasWriteProblem() const { return writeProblem_.load(); }

 private:
  TimePoint time_ GUARDED_BY(mutex_) = {};
  bool set_ GUARDED_BY(mutex_) = false;
  mutable Mutex mutex_;
  std::atomic<bool> writeProblem_{false};
};

}  // namespace storage::overlayprovider
