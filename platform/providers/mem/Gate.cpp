#include <providers/mem/Gate.hpp>

namespace providers::mem {

void Gate::close() {
  std::lock_guard lock(mutex_);
  open_.store(false, std::memory_order_release);
  changed_.notify_all();
}

void Gate::open() {
  std::lock_guard lock(mutex_);
  open_.store(true, std::memory_order_release);
  passes_ = 0;
  changed_.notify_all();
}

void Gate::release(std::size_t n) {
  std::lock_guard lock(mutex_);
  if (open_.load(std::memory_order_relaxed)) return;
  passes_ += n;
  changed_.notify_all();
}

void Gate::waitForWaiters(std::size_t n) {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return waiting_ >= n; });
}

bool Gate::waitForWaiters(std::size_t n, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return waiting_ >= n; });
}

bool Gate::waitForHeldInAll(std::size_t n, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return totalHeld_ >= n && waiting_ > 0; });
}

std::size_t Gate::waiting() const {
  std::lock_guard lock(mutex_);
  return waiting_;
}

std::size_t Gate::totalHeld() const {
  std::lock_guard lock(mutex_);
  return totalHeld_;
}

void Gate::pass() {
  if (open_.load(std::memory_order_acquire)) return;
  std::unique_lock lock(mutex_);
  if (open_.load(std::memory_order_relaxed)) return;
  // Passes go to held calls first; an arriving call takes only a pass left over.
  if (passes_ > waiting_) {
    --passes_;
    return;
  }
  ++waiting_;
  ++totalHeld_;
  changed_.notify_all();
  changed_.wait(lock, [&] { return open_.load(std::memory_order_relaxed) || passes_ > 0; });
  if (!open_.load(std::memory_order_relaxed)) --passes_;
  --waiting_;
  changed_.notify_all();
}

}  // namespace providers::mem
