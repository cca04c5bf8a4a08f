#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>

namespace storage::overlayprovider {

// FlushGate: keeps a flush from falling between a change to the caches and the queueing
// of its transaction.
//
// Every operation that changes the caches or queues work passes through the gate for its
// whole length, and a flush closes the gate: operations that arrive meanwhile wait, the
// flush waits for those inside to leave, drains, empties, and opens the gate again. Why:
// doc/design.md, "The flush".
//
// An operation that runs another one of the same provider on its own thread (a copy
// opens streams) enters again without waiting, so a closing flush cannot deadlock it.
// Thread-safe.
class FlushGate {
 public:
  // An operation's passage; leaves the gate when destroyed.
  class Pass {
   public:
    Pass(Pass&& other) noexcept : gate_(other.gate_) { other.gate_ = nullptr; }
    Pass(Pass const&) = delete;
    Pass& operator=(Pass const&) = delete;
    Pass& operator=(Pass&&) = delete;
    ~Pass();

   private:
    friend class FlushGate;
    explicit Pass(FlushGate* gate) : gate_(gate) {}
    FlushGate* gate_;  // null once moved from
  };

  // The gate closed for a flush; opens it again when destroyed.
  class Closed {
   public:
    Closed(Closed const&) = delete;
    Closed& operator=(Closed const&) = delete;
    ~Closed();

   private:
    friend class FlushGate;
    explicit Closed(FlushGate* gate) : gate_(gate) {}
    FlushGate* gate_;
  };

  // Waits while a flush holds the gate closed (unless this thread is already inside),
  // then counts the caller in.
  Pass enter();
  // Waits for another flush to open the gate, closes it, then waits until no operation of
  // another thread is inside (a flush run by an operation, as the fallback after a caching
  // failure is, does not wait for its own passage).
  Closed close();

  // For tests: operations inside the gate, operations and flushes waiting at it (for
  // another flush to open it), and whether a flush
  // holds it closed (or is closing it).
  std::size_t inside() const;
  std::size_t waiting() const;
  bool isClosed() const;

 private:
  void leave();
  void open();

  mutable std::mutex mutex_;        // guards inside_, waiting_ and closed_
  std::condition_variable changed_;  // an operation left or the gate opened
  std::size_t inside_ = 0;
  std::size_t waiting_ = 0;
  bool closed_ = false;
};

}  // namespace storage::overlayprovider
