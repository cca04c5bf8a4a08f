// SmallMutex: a mutex of four bytes, for objects that exist by the million (the metadata
// cache's records), where a std::mutex (forty bytes) would be a good part of each.
//
// A waiter sleeps in the kernel (std::atomic::wait, a futex on Linux), not in a spin, so
// a record's lock may be held across a call to the inner store (its extended-attributes
// producer) without burning the other core. Not recursive; not fair. Clang's
// thread-safety analysis knows it as a lock, like Mutex.
#pragma once

#include <core/util/Mutex.hpp>

#include <atomic>
#include <cstdint>

namespace storage::overlayprovider {

class CAPABILITY("mutex") SmallMutex {
 public:
  SmallMutex() = default;
  SmallMutex(SmallMutex const&) = delete;
  SmallMutex& operator=(SmallMutex const&) = delete;

  void lock() ACQUIRE() {
    std::uint32_t expected = kFree;
    if (state_.compare_exchange_strong(expected, kLocked, std::memory_order_acquire)) return;
    // Contended: mark the lock as having sleepers and sleep until it is handed back.
    if (expected != kContended) expected = state_.exchange(kContended, std::memory_order_acquire);
    while (expected != kFree) {
      state_.wait(kContended, std::memory_order_relaxed);
      expected = state_.exchange(kContended, std::memory_order_acquire);
    }
  }
  void unlock() RELEASE() {
    if (state_.exchange(kFree, std::memory_order_release) == kContended) state_.notify_one();
  }

 private:
  static constexpr std::uint32_t kFree = 0;
  static constexpr std::uint32_t kLocked = 1;     // held, nobody sleeps on it
  static constexpr std::uint32_t kContended = 2;  // held, and someone may sleep on it
  std::atomic<std::uint32_t> state_{kFree};
};

// Holds a SmallMutex from construction to destruction.
class SCOPED_CAPABILITY SmallLock {
 public:
  explicit SmallLock(SmallMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~SmallLock() RELEASE() { mutex_.unlock(); }
  SmallLock(SmallLock const&) = delete;
  SmallLock& operator=(SmallLock const&) = delete;

 private:
  SmallMutex& mutex_;
};

}  // namespace storage::overlayprovider
