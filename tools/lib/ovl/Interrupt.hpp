// Ctrl-C and SIGTERM for ovl.
//
// While an InterruptScope lives, the first SIGINT or SIGTERM only asks the running
// command to stop at its next safe point (between two chunks of a copy or of cat, two
// files of a tree, two operations of the demo): the command then throws Interrupted, and
// the program still flushes what the overlay acknowledged and removes the cache folder it
// made. A second signal ends the program at once, as the signal would by default; the
// next run removes the cache folder it left (see CacheRoot.hpp).
#pragma once

#include <atomic>
#include <stdexcept>

namespace ovl {

// Thrown at a safe point once a signal asked the command to stop.
class Interrupted : public std::runtime_error {
 public:
  explicit Interrupted(int signal) : std::runtime_error("interrupted"), signal_(signal) {}
  // The signal that asked for it (SIGINT, SIGTERM).
  int signal() const { return signal_; }

 private:
  int signal_;
};

class InterruptScope {
 public:
  // Installs the handlers for SIGINT and SIGTERM and clears an earlier request.
  InterruptScope();
  // Puts the earlier handlers back.
  ~InterruptScope();
  InterruptScope(InterruptScope const&) = delete;
  InterruptScope& operator=(InterruptScope const&) = delete;
};

// The flag the handlers set (true once a signal asked the command to stop).
std::atomic<bool>& interruptRequested();
// The signal that asked, 0 when none did.
int interruptSignal();
// Throws Interrupted when a signal asked the command to stop.
void throwIfInterrupted();

}  // namespace ovl
