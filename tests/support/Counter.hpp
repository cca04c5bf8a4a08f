// Counter: a count that threads raise and others wait on.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

namespace support {

class Counter {
 public:
  void add() {
    std::lock_guard lock(mutex_);
    ++value_;
    changed_.notify_all();
  }
  // add() as a callback; the counter must outlive it.
  std::function<void()> callback() {
    return [this] { add(); };
  }
  // Waits until the count has reached `target`.
  void waitFor(int target) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return value_ >= target; });
  }
  int value() {
    std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;  // guards value_
  std::condition_variable changed_;
  int value_ = 0;
};

}  // namespace support
