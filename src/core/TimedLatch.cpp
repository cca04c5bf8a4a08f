#include <core/TimedLatch.hpp>

#include <core/Logger.hpp>

#include <cstdlib>
#include <exception>
#include <string>

namespace storage::overlayprovider {

void TimedLatch::ConditionWaiter::waitFor(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                                          std::chrono::milliseconds timeout,
                                          std::function<bool()> const& cancelled) {
  cv.wait_for(lock, timeout, cancelled);
}

std::chrono::milliseconds TimedLatch::timeoutFromEnvironment() {
  char const* value = std::getenv("QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT");
  if (value == nullptr) return kDefaultTimeout;
  return std::chrono::milliseconds(std::atol(value));
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
  {
    std::lock_guard<std::mutex> outer(outerMutex_);
    if (switchedOff_) return;
  }
  firstCallback_();

  std::lock_guard<std::mutex> outer(outerMutex_);
  // A close() that came in while the first callback ran wins: no timer after close.
  if (switchedOff_) return;
  {
    std::lock_guard<std::mutex> inner(innerMutex_);
    cancel_ = true;
  }
  cv_.notify_all();
  if (timer_.joinable()) timer_.join();
  {
    std::lock_guard<std::mutex> inner(innerMutex_);
    cancel_ = false;
  }
  timer_ = std::thread([this] { runTimer(); });
}

void TimedLatch::close() {
  std::lock_guard<std::mutex> outer(outerMutex_);
  switchedOff_ = true;
  {
    std::lock_guard<std::mutex> inner(innerMutex_);
    cancel_ = true;
  }
  cv_.notify_all();
  if (timer_.joinable()) {
    if (timer_.get_id() == std::this_thread::get_id()) {
      timer_.detach();  // the last owner let go inside the second callback
    } else {
      timer_.join();
    }
  }
}

bool TimedLatch::isClosed() const {
  std::lock_guard<std::mutex> outer(outerMutex_);
  return switchedOff_;
}

void TimedLatch::runTimer() {
  try {
    bool expired = false;
    {
      std::unique_lock<std::mutex> lock(innerMutex_);
      for (;;) {
        waiter_->waitFor(lock, cv_, timeout_, [this] { return cancel_; });
        expired = !cancel_;
        if (!expired || !holdWhile_ || !holdWhile_()) break;
      }
    }
    // Called without the inner mutex, so a trigger arriving now is not held up by it.
    if (expired) secondCallback_();
  } catch (std::exception const& e) {
    getLogger().log(foundation::log::Diagnostic, std::string("Exception caught: ") + e.what());
  } catch (...) {
    getLogger().log(foundation::log::Diagnostic, "Exception caught: unknown exception");
  }
}

}  // namespace storage::overlayprovider
