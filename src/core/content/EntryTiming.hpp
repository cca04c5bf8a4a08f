// EntryTiming: a working file entry's sources of time.
//
// Every wait or sleep of an entry (and of its parts) goes through these, so that tests
// drive time by hand and never sleep. The defaults are the real clock.
#pragma once

#include <core/util/SteadyClock.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace storage::overlayprovider {

struct EntryTiming {
  using TimePoint = std::chrono::steady_clock::time_point;

  // The steady clock: last access times, abort times, enqueue stamps and the deadline of
  // the wait for pending write-behind.
  SteadyClockSource now = &steadyNow;

  // The pause between two retries of a failed inner read (the read retry rule).
  std::function<void(std::chrono::milliseconds)> sleepFor = &EntryTiming::realSleep;

  // One wait of the read path for pending write-behind. Called with `lock` holding the
  // entry's pending mutex; blocks on `cv` (releasing `lock` while blocked) until it is
  // notified or `deadline`, measured on `now`, has passed, and returns with `lock` held.
  // May return early; the caller checks the counter and the deadline again.
  std::function<void(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, TimePoint deadline)>
      waitUntil = &EntryTiming::realWaitUntil;

  // How often a wait for the open transaction looks whether the entry was aborted since
  // the wait began.
  std::chrono::milliseconds abortPollInterval{100};

  static void realSleep(std::chrono::milliseconds duration);
  static void realWaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, TimePoint deadline);
};

}  // namespace storage::overlayprovider
