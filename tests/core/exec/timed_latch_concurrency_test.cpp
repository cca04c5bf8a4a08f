// TimedLatch under concurrent triggers with a time-out of zero, so that resumptions run
// all the time between and during triggers: once the triggers stop, the listener must end
// resumed (never left paused by a resumption that ran before a trigger's pause), and
// closing while resumptions run neither hangs nor resumes afterwards.
#include <core/exec/TimedLatch.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

using storage::overlayprovider::TimedLatch;

namespace {

// The listener's side: paused or not, and how often each callback ran.
class Listener {
 public:
  void pause() {
    std::lock_guard lock(mutex_);
    paused_ = true;
    ++pauses_;
  }
  void unpause() {
    std::lock_guard lock(mutex_);
    paused_ = false;
    ++unpauses_;
    changed_.notify_all();
  }
  // Waits until resumed; false if that did not happen within a guard that only a hang
  // reaches.
  bool waitResumed() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [this] { return !paused_; });
  }
  int pauses() {
    std::lock_guard lock(mutex_);
    return pauses_;
  }
  int unpauses() {
    std::lock_guard lock(mutex_);
    return unpauses_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool paused_ = false;
  int pauses_ = 0;
  int unpauses_ = 0;
};

}  // namespace

TEST(TimedLatchConcurrency, ConcurrentTriggersEndResumedAndCloseStopsResumptions) {
  constexpr int kThreads = 4;
  constexpr int kTriggers = 2000;
  Listener listener;
  TimedLatch latch([&] { listener.pause(); }, [&] { listener.unpause(); }, std::chrono::milliseconds(0));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kTriggers; ++i) latch.trigger();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(kThreads * kTriggers, listener.pauses());
  EXPECT_TRUE(listener.waitResumed()) << "left paused after the last trigger";
  EXPECT_GE(listener.unpauses(), 1);

  latch.trigger();
  latch.close();
  int const after = listener.unpauses();
  latch.trigger();  // switched off: neither pauses nor resumes
  EXPECT_EQ(kThreads * kTriggers + 1, listener.pauses());
  EXPECT_EQ(after, listener.unpauses());
}
