#include <ovl/Interrupt.hpp>

#include <csignal>

namespace ovl {

namespace {

std::atomic<bool> requested{false};
std::atomic<int> requestingSignal{0};
struct sigaction previousInt {}, previousTerm{};

extern "C" void onSignal(int signal) {
  if (requested.load()) {
    // The second signal: end now, as the signal would have without us.
    ::signal(signal, SIG_DFL);
    ::raise(signal);
    return;
  }
  requestingSignal.store(signal);
  requested.store(true);
}

}  // namespace

InterruptScope::InterruptScope() {
  requested.store(false);
  requestingSignal.store(0);
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  ::sigaction(SIGINT, &action, &previousInt);
  ::sigaction(SIGTERM, &action, &previousTerm);
}

InterruptScope::~InterruptScope() {
  ::sigaction(SIGINT, &previousInt, nullptr);
  ::sigaction(SIGTERM, &previousTerm, nullptr);
}

std::atomic<bool>& interruptRequested() { return requested; }

int interruptSignal() { return requestingSignal.load(); }

void throwIfInterrupted() {
  if (requested.load()) throw Interrupted(requestingSignal.load());
}

}  // namespace ovl
