// TimedLatch: a retriggerable one-shot timer that pauses event handling while the
// overlay itself changes the inner provider.
//
// trigger() calls the first callback at once (the provider passes EventListener::pause)
// and (re)arms the timer; the second callback (EventListener::unpause) runs on the timer
// thread once the time-out has passed with no further trigger, so the listener resumes
// only a full time-out after the last trigger. One timer thread serves every trigger: it
// starts at the first and waits for the next arming after each resumption
// (doc/performance.md says why). A trigger that meets a resumption under way waits
// for it to end, so a pause never precedes the resumption it should have cancelled.
// close() (at provider shutdown) switches the latch off for good: the timer thread is
// stopped and joined, the second callback is not called, and later triggers do nothing.
//
// Waiting is injectable: the timer thread waits through a `Waiter`. The default
// (ConditionWaiter) waits on the latch's condition variable with wait_for, measuring the
// time-out on the steady clock from the start of the wait and waiting again after
// spurious wake-ups. A test passes a waiter that returns when the test says the time-out
// has passed, so "a full time-out without a trigger" is driven by hand, not by sleeping.
//
// Thread safety: trigger() and close() may be called from any thread; triggers are
// serialised by `outerMutex_`. trigger() must not be called from either callback (it
// waits for the second to end); close() from the second callback (the latch's last owner
// letting go there) leaves the timer thread to end by itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace storage::overlayprovider {

class TimedLatch {
 public:
  // How the timer thread waits for the time-out.
  class Waiter {
   public:
    virtual ~Waiter() = default;

    // Runs on the timer thread with `lock` holding the latch's inner mutex. Blocks on `cv`
    // (releasing `lock` while blocked) until `timeout` has passed or `cancelled()` is
    // true, and returns with `lock` held. `cancelled` must be evaluated with `lock` held;
    // the latch notifies `cv` after setting its cancel flag. Must not throw.
    virtual void waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                         std::chrono::milliseconds timeout, std::function<bool()> const& cancelled) = 0;
  };

  // The real wait: cv.wait_for(lock, timeout, cancelled).
  class ConditionWaiter final : public Waiter {
   public:
    void waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 std::chrono::milliseconds timeout, std::function<bool()> const& cancelled) override;
  };

  // The event robustness time-out used when none is configured.
  static constexpr std::chrono::milliseconds kDefaultTimeout{3000};

  // Starts no thread. `waiter` must not be null. `holdWhile`, when given, is asked each
  // time a time-out has passed without a trigger: while it answers true, the second
  // callback is held back for a further time-out (the provider passes "the overlay's own
  // changes are still on their way to the store"; doc/design.md, "Change events"). It
  // runs on the timer thread with the inner mutex held and must be quick and must not
  // throw.
  TimedLatch(std::function<void()> firstCallback, std::function<void()> secondCallback,
             std::chrono::milliseconds timeout = kDefaultTimeout,
             std::shared_ptr<Waiter> waiter = std::make_shared<ConditionWaiter>(),
             std::function<bool()> holdWhile = nullptr);
  // Closes the latch (see close()).
  ~TimedLatch();
  TimedLatch(TimedLatch const&) = delete;
  TimedLatch& operator=(TimedLatch const&) = delete;

  // Unless closed: waits for a resumption under way to end, calls the first callback on
  // this thread (its exceptions propagate, and the timer is then not re-armed), then arms
  // the timer for a full time-out from now, starting the timer thread at the first call.
  // Throws std::system_error if the timer thread cannot be started.
  void trigger();

  // Switches the latch off, stops the timer and joins its thread. A pending second
  // callback is not called. Idempotent.
  void close();

  bool isClosed() const;
  std::chrono::milliseconds getTimeout() const { return timeout_; }

 private:
  // The timer thread's body.
  void runTimer();

  std::function<void()> const firstCallback_;
  std::function<void()> const secondCallback_;
  std::chrono::milliseconds const timeout_;
  std::shared_ptr<Waiter> const waiter_;
  std::function<bool()> const holdWhile_;
  std::thread timer_;               // guarded by outerMutex_
  std::condition_variable cv_;      // the timer thread sleeps on it, under innerMutex_
  std::condition_variable idle_;    // a resumption ended; triggers wait on it
  std::uint64_t generation_ = 0;    // guarded by innerMutex_: triggers that armed the timer
  int triggering_ = 0;              // guarded by innerMutex_: triggers between pause and arming
  bool armed_ = false;              // guarded by innerMutex_: a resumption is due
  bool inCallback_ = false;         // guarded by innerMutex_: the second callback runs
  bool stop_ = false;               // guarded by innerMutex_: the timer thread must end
  bool switchedOff_ = false;        // guarded by outerMutex_
  std::mutex innerMutex_;           // guards the fields above it; held by the timer thread while it waits
  mutable std::mutex outerMutex_;  // serialises trigger() and close(); guards timer_, switchedOff_
};

}  // namespace storage::overlayprovider
