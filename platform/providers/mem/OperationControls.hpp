// OperationControls: the per-operation switches of the `mem` store that tests drive:
// call counters, gates, simulated latency and injected faults.
//
// Thread-safe. `enter` is on the path of every store call and costs a few atomic
// operations while nothing is switched on.
#pragma once

#include <providers/mem/Gate.hpp>
#include <providers/mem/Operation.hpp>

#include <foundation/storage/provider/ErrorCode.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

namespace providers::mem::detail {

// What one call must raise instead of doing its work.
struct Fault {
  // True: a std::runtime_error, an error that is not the store's Exception.
  bool unexpected = false;
  foundation::storage::provider::ErrorCode code = foundation::storage::provider::ErrorCode::TransientFailure;
};

class OperationControls {
 public:
  OperationControls() = default;
  OperationControls(OperationControls const&) = delete;
  OperationControls& operator=(OperationControls const&) = delete;

  // Runs the controls for the start of one call of `op`, in this order: counts the call,
  // holds it at the operation's gate, sleeps the operation's latency, and returns the
  // fault the call must raise, if one is due. The caller must hold no lock of the store.
  std::optional<Fault> enter(Operation op);

  // The next `count` calls of `op` raise `fault`; queued behind faults already armed.
  void failNext(Operation op, int count, Fault fault);
  // One call of `op` in `n` (chosen by a pseudo-random sequence seeded with `seed`)
  // raises `fault`, after the faults armed by failNext are used up. n == 0 switches off.
  void failEvery(Operation op, unsigned n, Fault fault, std::uint64_t seed);
  // Drops every armed fault of every operation.
  void clearFaults();

  void setLatency(Operation op, std::chrono::microseconds latency);
  void setLatencyForAll(std::chrono::microseconds latency);

  Gate& gate(Operation op) { return slot(op).gate; }
  // Opens every gate (used when the store goes away, so that no call stays held).
  void openAllGates();

  std::size_t calls(Operation op) const { return slot(op).calls.load(std::memory_order_relaxed); }
  void resetCounters();

 private:
  struct Slot {
    std::atomic<std::size_t> calls{0};
    std::atomic<std::int64_t> latencyMicros{0};
    std::atomic<bool> faultsArmed{false};  // written under faultMutex_: next or every is set
    Gate gate;
    std::deque<std::pair<int, Fault>> next;  // guarded by faultMutex_: (calls left, fault)
    unsigned every = 0;                      // guarded by faultMutex_
    Fault everyFault;                        // guarded by faultMutex_
    std::uint64_t random = 0;                // guarded by faultMutex_: state of the sequence
  };

  Slot& slot(Operation op) { return slots_[static_cast<std::size_t>(op)]; }
  Slot const& slot(Operation op) const { return slots_[static_cast<std::size_t>(op)]; }
  // Caller holds faultMutex_.
  static void updateArmed(Slot& slot);

  std::array<Slot, kOperationCount> slots_;
  std::mutex faultMutex_;  // guards the fault plans (next, every, everyFault, random) of every slot
};

}  // namespace providers::mem::detail
