// Signal: a one-shot event that one thread sets and others wait for.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace support {

class Signal {
 public:
  void set() {
    std::lock_guard lock(mutex_);
    set_ = true;
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return set_; });
  }
  bool isSet() {
    std::lock_guard lock(mutex_);
    return set_;
  }
  // As wait(), but gives up after `timeout`; for tests that would rather fail than hang
  // when the signal never comes.
  bool waitFor(std::chrono::milliseconds timeout) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return set_; });
  }

 private:
  std::mutex mutex_;  // guards set_
  std::condition_variable changed_;
  bool set_ = false;
};

}  // namespace support
