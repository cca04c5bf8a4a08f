#include <core/exec/SynchronousExecutor.hpp>

namespace storage::overlayprovider {

SynchronousExecutor::SynchronousExecutor(std::function<void()> idleCallback, SteadyClockSource clock)
    : clock_(std::move(clock)), idleCallback_(std::move(idleCallback)), lastActivityTime_(clock_()) {}

void SynchronousExecutor::execute(Task task, ObservableTransactionType, double) {
  if (!stopped_.load()) {
    task();
    lastActivityTime_.store(clock_());
  }
  idleCallback_();
}

void SynchronousExecutor::shutdown(bool) { stopped_.store(true); }

}  // namespace storage::overlayprovider
