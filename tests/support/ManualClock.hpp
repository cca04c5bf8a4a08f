// ManualClock: a steady clock the test moves by hand.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>

namespace support {

// Stands still until the test sets or advances it; any thread may read it.
class ManualClock {
 public:
  using time_point = std::chrono::steady_clock::time_point;

  time_point now() const { return time_point(std::chrono::nanoseconds(now_.load())); }
  void advance(std::chrono::nanoseconds by) { now_ += by.count(); }
  // Moves the clock to `sinceEpoch` after the clock's epoch, backwards if need be.
  void set(std::chrono::nanoseconds sinceEpoch) { now_.store(sinceEpoch.count()); }
  // Reads this clock; for the objects that take their time from a function.
  std::function<time_point()> source() const {
    return [this] { return now(); };
  }

 private:
  std::atomic<long long> now_{1'000'000'000'000};  // nanoseconds; any fixed origin
};

}  // namespace support
