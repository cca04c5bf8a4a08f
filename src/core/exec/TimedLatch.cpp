#include <core/exec/TimedLatch.hpp>

#include <core/util/Logger.hpp>

#include <cstdint>
#include <exception>
#include <string>

namespace storage::overlayprovider {

void TimedLatch::ConditionWaiter::waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                                          std::chrono::milliseconds timeout,
                                          std::function<bool()> const& cancelled) {
  cv.wait_for(lock, timeout, cancelled);
}

TimedLatch::TimedLatch(std::function<void()> firstCallback, std::function<void()> secondCallback,
                       std::chrono::milliseconds timeout, std::shared_ptr<Waiter> waiter,
                       std::function<bool()> holdWhile)
    : firstCallback_(std::move(firstCallback)),
      secondCallback_(std::move(secondCallback)),
      timeout_(timeout),
      waiter_(std::move(waiter)),
      holdWhile_(std::move(holdWhile)) {}

TimedLatch::~TimedLatch() {
  try {
    close();
  } catch (...) {
    // Joining can fail only on a broken thread; a destructor must not throw.
  }
}

void TimedLatch::trigger() {
  std::lock_guard<std::mutex> outer(outerMutex_);
  if (switchedOff_) return;
  {
    // A resumption under way ends first, so that it cannot follow this pause.
    std::unique_lock<std::mutex> inner(innerMutex_);
    idle_.wait(inner, [this] { return !inCallback_; });
    ++triggering_;
  }
  struct Done {
    TimedLatch& latch;
    ~Done() {
      {
        std::lock_guard<std::mutex> inner(latch.innerMutex_);
        --latch.triggering_;
      }
      latch.cv_.notify_all();
    }
  } const done{*this};
  firstCallback_();
  {
    std::lock_guard<std::mutex> inner(innerMutex_);
    ++generation_;
    armed_ = true;
  }
  if (!timer_.joinable()) timer_ = std::thread([this] { runTimer(); });
}

void TimedLatch::close() {
  std::thread timer;
  {
    std::lock_guard<std::mutex> outer(outerMutex_);
    switchedOff_ = true;
    {
      std::lock_guard<std::mutex> inner(innerMutex_);
      stop_ = true;
    }
    timer = std::move(timer_);
  }
  cv_.notify_all();
  if (timer.joinable()) {
    if (timer.get_id() == std::this_thread::get_id()) {
      timer.detach();  // the last owner let go inside the second callback
    } else {
      timer.join();
    }
  }
}

bool TimedLatch::isClosed() const {
  std::lock_guard<std::mutex> outer(outerMutex_);
  return switchedOff_;
}

void TimedLatch::runTimer() {
  std::unique_lock<std::mutex> lock(innerMutex_);
  for (;;) {
    cv_.wait(lock, [this] { return stop_ || armed_; });
    if (stop_) return;
    std::uint64_t const generation = generation_;
    waiter_->waitFor(lock, cv_, timeout_, [&] { return stop_ || generation_ != generation; });
    if (stop_) return;
    // Triggered again meanwhile (or about to be): a full time-out from that trigger.
    if (generation_ != generation || triggering_ > 0) continue;
    if (holdWhile_ && holdWhile_()) continue;
    armed_ = false;
    inCallback_ = true;
    lock.unlock();
    try {
      // Called without the inner mutex: a trigger arriving now waits only for this call.
      secondCallback_();
    } catch (std::exception const& e) {
      getLogger().log(foundation::log::Diagnostic, std::string("Exception caught: ") + e.what());
    } catch (...) {
      getLogger().log(foundation::log::Diagnostic, "Exception caught: unknown exception");
    }
    lock.lock();
    inCallback_ = false;
    idle_.notify_all();
  }
}

}  // namespace storage::overlayprovider
