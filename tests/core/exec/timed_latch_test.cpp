// TimedLatch: pause at once, resume a full time-out after the last trigger, nothing after
// close. The time-out is driven by hand through an injected waiter; no test sleeps.
#include "exec/executor_test_support.hpp"

#include <core/exec/TimedLatch.hpp>
#include <support/Counter.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace {

using namespace overlay_test;
using storage::overlayprovider::TimedLatch;
using support::Counter;
using foundation::log::MemorySink;

// A waiter whose time-out passes when the test says so. Lock order: the latch's inner
// mutex, then this waiter's mutex (the timer thread holds the former while it waits).
class ManualWaiter : public TimedLatch::Waiter {
 public:
  void waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv, std::chrono::milliseconds timeout,
               std::function<bool()> const& cancelled) override {
    int ticket;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      ticket = begun_++;
      latchMutex_ = lock.mutex();
      latchCv_ = &cv;
      timeouts_.push_back(timeout);
      changed_.notify_all();
    }
    cv.wait(lock, [&] {
      if (cancelled()) return true;
      std::lock_guard<std::mutex> guard(mutex_);
      return expiredBefore_ > ticket;
    });
  }

  // Waits until `count` waits have begun.
  void waitBegun(int count) {
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait(guard, [&] { return begun_ >= count; });
  }

  // The time-out of every wait begun so far has passed.
  void expire() {
    std::mutex* latchMutex;
    std::condition_variable* latchCv;
    {
      std::lock_guard<std::mutex> guard(mutex_);
      latchMutex = latchMutex_;
      latchCv = latchCv_;
    }
    ASSERT_NE(nullptr, latchMutex) << "no wait has begun";
    std::lock_guard<std::mutex> latchLock(*latchMutex);  // so the waiting thread cannot miss it
    {
      std::lock_guard<std::mutex> guard(mutex_);
      expiredBefore_ = begun_;
    }
    latchCv->notify_all();
  }

  int begun() {
    std::lock_guard<std::mutex> guard(mutex_);
    return begun_;
  }
  std::vector<std::chrono::milliseconds> timeouts() {
    std::lock_guard<std::mutex> guard(mutex_);
    return timeouts_;
  }

 private:
  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  int begun_ = 0;
  int expiredBefore_ = 0;  // waits with a ticket below this have timed out
  std::mutex* latchMutex_ = nullptr;
  std::condition_variable* latchCv_ = nullptr;
  std::vector<std::chrono::milliseconds> timeouts_;
};

TEST(TimedLatchTest, PausesAtOnceAndResumesAFullTimeOutAfterTheLastTrigger) {
  Counter pauses, unpauses;
  auto waiter = std::make_shared<ManualWaiter>();
  TimedLatch latch(pauses.callback(), unpauses.callback(), std::chrono::milliseconds(250), waiter);
  EXPECT_EQ(std::chrono::milliseconds(250), latch.getTimeout());

  latch.trigger();
  EXPECT_EQ(1, pauses.value()) << "paused on the caller's thread, before trigger returns";
  waiter->waitBegun(1);

  // Each trigger re-arms the timer: the wait under way ends without resuming anything and
  // a full time-out begins again.
  latch.trigger();
  EXPECT_EQ(2, pauses.value());
  waiter->waitBegun(2);
  latch.trigger();
  EXPECT_EQ(3, pauses.value());
  waiter->waitBegun(3);
  EXPECT_EQ(0, unpauses.value());

  waiter->expire();  // a full time-out after the last trigger
  unpauses.waitFor(1);
  EXPECT_EQ(1, unpauses.value());
  EXPECT_EQ(3, waiter->begun()) << "one wait per trigger";
  for (auto timeout : waiter->timeouts()) EXPECT_EQ(std::chrono::milliseconds(250), timeout);

  // The latch is one-shot per trigger and can be triggered again.
  latch.trigger();
  EXPECT_EQ(4, pauses.value());
  waiter->waitBegun(4);
  waiter->expire();
  unpauses.waitFor(2);
  EXPECT_EQ(2, unpauses.value());
}

TEST(TimedLatchTest, HoldsTheResumptionBackWhileItsConditionHolds) {
  Counter pauses, unpauses;
  auto waiter = std::make_shared<ManualWaiter>();
  std::atomic<bool> busy{true};
  TimedLatch latch(pauses.callback(), unpauses.callback(), std::chrono::milliseconds(40), waiter,
                   [&] { return busy.load(); });
  latch.trigger();
  waiter->waitBegun(1);
  waiter->expire();
  // Still busy at the time-out: a further full time-out, no resumption.
  waiter->waitBegun(2);
  EXPECT_EQ(0, unpauses.value());
  waiter->expire();
  waiter->waitBegun(3);
  EXPECT_EQ(0, unpauses.value());

  busy = false;
  waiter->expire();
  unpauses.waitFor(1);
  EXPECT_EQ(3, waiter->begun());
  for (auto timeout : waiter->timeouts()) EXPECT_EQ(std::chrono::milliseconds(40), timeout);

  // A trigger while held back starts over; close() ends a held-back timer without resuming.
  busy = true;
  latch.trigger();
  waiter->waitBegun(4);
  waiter->expire();
  waiter->waitBegun(5);
  latch.close();
  EXPECT_EQ(1, unpauses.value());
}

TEST(TimedLatchTest, CloseStopsThePendingTimerAndSwitchesTriggersOff) {
  Counter pauses, unpauses;
  auto waiter = std::make_shared<ManualWaiter>();
  TimedLatch latch(pauses.callback(), unpauses.callback(), TimedLatch::kDefaultTimeout, waiter);
  latch.trigger();
  waiter->waitBegun(1);
  EXPECT_EQ(std::chrono::milliseconds(3000), waiter->timeouts().front());

  EXPECT_FALSE(latch.isClosed());
  latch.close();  // joins the timer thread: afterwards nothing can resume the listener
  EXPECT_TRUE(latch.isClosed());
  EXPECT_EQ(0, unpauses.value());

  latch.trigger();
  EXPECT_EQ(1, pauses.value()) << "a closed latch does not pause";
  EXPECT_EQ(1, waiter->begun()) << "and starts no timer";
  latch.close();
  EXPECT_EQ(0, unpauses.value());
}

TEST(TimedLatchTest, DestroyingALatchWithAPendingTimerDoesNotResume) {
  Counter pauses, unpauses;
  auto waiter = std::make_shared<ManualWaiter>();
  {
    TimedLatch latch(pauses.callback(), unpauses.callback(), std::chrono::milliseconds(10), waiter);
    latch.trigger();
    waiter->waitBegun(1);
  }
  EXPECT_EQ(0, unpauses.value());
}

TEST(TimedLatchTest, CallbackFailures) {
  MemorySink sink;
  auto waiter = std::make_shared<ManualWaiter>();
  Counter unpauses;
  bool failPause = true;
  auto resumed = std::make_shared<Signal>();
  TimedLatch latch(
      [&] {
        if (failPause) throw std::runtime_error("pause failed");
      },
      [resumed] {
        resumed->set();
        throw std::runtime_error("unpause failed");
      },
      std::chrono::milliseconds(5), waiter);

  // A failing first callback fails the trigger, before any timer starts.
  EXPECT_THROW(latch.trigger(), std::runtime_error);
  EXPECT_EQ(0, waiter->begun());

  // A failing second callback is caught on the timer thread and logged.
  failPause = false;
  latch.trigger();
  waiter->waitBegun(1);
  waiter->expire();
  resumed->wait();
  latch.close();  // joins the timer thread, so its log record is in
  EXPECT_TRUE(sink.contains("Exception caught: unpause failed"));
}

TEST(TimedLatchTest, DefaultWaiterResumesOnceTheTimeOutHasPassed) {
  Counter pauses, unpauses;
  TimedLatch latch(pauses.callback(), unpauses.callback(), std::chrono::milliseconds(1));
  latch.trigger();
  unpauses.waitFor(1);  // whenever the real clock gets there
  EXPECT_EQ(1, pauses.value());
}

}  // namespace
