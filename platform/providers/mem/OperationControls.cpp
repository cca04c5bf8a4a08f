#include "OperationControls.hpp"

#include <thread>

namespace providers::mem::detail {

namespace {

// SplitMix64: a small, well-mixed sequence, identical on every platform for a seed.
std::uint64_t nextRandom(std::uint64_t& state) {
  std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
  return z ^ (z >> 31);
}

}  // namespace

std::optional<Fault> OperationControls::enter(Operation op) {
  Slot& s = slot(op);
  s.calls.fetch_add(1, std::memory_order_relaxed);
  s.gate.pass();
  if (auto micros = s.latencyMicros.load(std::memory_order_relaxed); micros > 0) {
    std::this_thread::sleep_for(std::chrono::microseconds(micros));
  }
  if (!s.faultsArmed.load(std::memory_order_acquire)) return std::nullopt;

  std::lock_guard lock(faultMutex_);
  std::optional<Fault> due;
  if (!s.next.empty()) {
    due = s.next.front().second;
    if (--s.next.front().first <= 0) s.next.pop_front();
  } else if (s.every > 0 && nextRandom(s.random) % s.every == 0) {
    due = s.everyFault;
  }
  updateArmed(s);
  return due;
}

void OperationControls::failNext(Operation op, int count, Fault fault) {
  if (count <= 0) return;
  std::lock_guard lock(faultMutex_);
  Slot& s = slot(op);
  s.next.emplace_back(count, fault);
  updateArmed(s);
}

void OperationControls::failEvery(Operation op, unsigned n, Fault fault, std::uint64_t seed) {
  std::lock_guard lock(faultMutex_);
  Slot& s = slot(op);
  s.every = n;
  s.everyFault = fault;
  s.random = seed;
  updateArmed(s);
}

void OperationControls::clearFaults() {
  std::lock_guard lock(faultMutex_);
  for (auto& s : slots_) {
    s.next.clear();
    s.every = 0;
    updateArmed(s);
  }
}

void OperationControls::setLatency(Operation op, std::chrono::microseconds latency) {
  slot(op).latencyMicros.store(latency.count(), std::memory_order_relaxed);
}

void OperationControls::setLatencyForAll(std::chrono::microseconds latency) {
  for (auto& s : slots_) s.latencyMicros.store(latency.count(), std::memory_order_relaxed);
}

void OperationControls::openAllGates() {
  for (auto& s : slots_) s.gate.open();
}

void OperationControls::resetCounters() {
  for (auto& s : slots_) s.calls.store(0, std::memory_order_relaxed);
}

void OperationControls::updateArmed(Slot& s) {
  s.faultsArmed.store(!s.next.empty() || s.every > 0, std::memory_order_release);
}

}  // namespace providers::mem::detail
