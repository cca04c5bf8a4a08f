// Gate: a switch in front of one operation of the `mem` store that lets a test hold calls
// at their start and let them through one by one.
//
// A gate is open by default and then costs one atomic load per call. While it is closed,
// every call that reaches `pass()` waits there until the gate is opened or the call is
// given one of the passes that `release(n)` hands out. Tests use `waitForWaiters(n)` to
// know that n calls have arrived, without sleeping.
//
// Thread-safe; every member may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace providers::mem {

class Gate {
 public:
  Gate() = default;
  Gate(Gate const&) = delete;
  Gate& operator=(Gate const&) = delete;

  // Holds every later call at its start. Passes handed out by release() and not yet used
  // stay valid.
  void close();
  // Lets every held call through and stops holding calls; unused passes are dropped.
  void open();
  bool isOpen() const { return open_.load(std::memory_order_acquire); }

  // Lets exactly `n` calls through a closed gate: held calls first, in no particular
  // order; passes not used by a held call are used by the next calls to arrive. The gate
  // stays closed for every other call. Does nothing on an open gate.
  void release(std::size_t n = 1);

  // Blocks until at least `n` calls are held at the gate.
  void waitForWaiters(std::size_t n);
  // As above, but gives up after `timeout`; returns whether `n` calls were held. Meant
  // for tests that would rather fail than hang when a call never arrives.
  bool waitForWaiters(std::size_t n, std::chrono::milliseconds timeout);

  // Blocks until `n` calls in all have been held at this gate (totalHeld) and one is
  // held right now, or `timeout` has passed; returns whether that happened. For a test
  // that lets one call after another through and waits for the next to arrive.
  bool waitForHeldInAll(std::size_t n, std::chrono::milliseconds timeout);

  // The number of calls held right now.
  std::size_t waiting() const;
  // The number of calls that have been held at this gate since it was made (whether
  // they have passed since or not).
  std::size_t totalHeld() const;

  // Called by the store at the start of a call: returns at once while the gate is open,
  // otherwise waits for open() or a pass.
  void pass();

 private:
  std::atomic<bool> open_{true};    // written under mutex_; read without it on the fast path
  mutable std::mutex mutex_;        // guards waiting_, passes_, totalHeld_
  std::condition_variable changed_;  // signalled on every change of open_, waiting_, passes_
  std::size_t waiting_ = 0;
  std::size_t passes_ = 0;
  std::size_t totalHeld_ = 0;
};

}  // namespace providers::mem
