#include <core/metadata/TreePopulation.hpp>

#include <chrono>
#include <utility>

namespace storage::overlayprovider {

TreePopulation::~TreePopulation() { finish(); }

void TreePopulation::start(std::function<void()> task, bool wait) {
  LockGuard lock(mutex_);
  population_ = std::make_unique<std::future<void>>(std::async(std::move(task)));
  if (wait) population_->get();
}

void TreePopulation::awaitFirstTime() {
  if (waited_.load(std::memory_order_acquire)) return;
  LockGuard lock(mutex_);
  if (waited_.load(std::memory_order_relaxed)) return;
  if (population_ && population_->valid()) population_->get();  // a failure leaves the next call to wait again
  waited_.store(true, std::memory_order_release);
}

void TreePopulation::await() {
  LockGuard lock(mutex_);
  if (population_ && population_->valid()) population_->get();
}

void TreePopulation::finish() {
  LockGuard lock(mutex_);
  if (population_ && population_->valid() &&
      population_->wait_for(std::chrono::seconds(0)) != std::future_status::deferred) {
    try {
      population_->get();
    } catch (...) {
    }
  }
}

}  // namespace storage::overlayprovider
