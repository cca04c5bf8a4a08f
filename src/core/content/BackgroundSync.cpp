#include <core/content/BackgroundSync.hpp>

#include <utility>

namespace storage::overlayprovider {

BackgroundSync::~BackgroundSync() { join(); }

void BackgroundSync::run(std::shared_ptr<DurabilityHandle> durability) {
  LockGuard lock(mutex_);
  // One sync at a time per entry; the one before has long finished, as a rule.
  if (thread_.joinable()) thread_.join();
  try {
    thread_ = std::thread([durability] { durability->run(); });
  } catch (...) {
    durability->run();  // no thread to be had: here, then
  }
}

void BackgroundSync::join() {
  LockGuard lock(mutex_);
  if (thread_.joinable()) thread_.join();
}

}  // namespace storage::overlayprovider
