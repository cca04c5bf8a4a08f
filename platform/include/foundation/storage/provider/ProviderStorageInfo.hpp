// Capacity figures of a store, and the space its local cache has left.
#pragma once

#include <optional>

namespace foundation::storage::provider {

class ProviderStorageInfo {
 public:
  ProviderStorageInfo() = default;
  ProviderStorageInfo withStorageCapacity(unsigned long capacity) const {
    auto copy = *this;
    copy.capacity_ = capacity;
    return copy;
  }
  ProviderStorageInfo withSpaceOccupied(unsigned long occupied) const {
    auto copy = *this;
    copy.occupied_ = occupied;
    return copy;
  }
  unsigned long getStorageCapacity() const { return capacity_; }
  unsigned long getSpaceOccupied() const { return occupied_; }

 private:
  unsigned long capacity_ = 0;
  unsigned long occupied_ = 0;
};

class ProviderCacheUsage {
 public:
  // No figure: the provider has no local cache that could run out.
  ProviderCacheUsage() = default;
  explicit ProviderCacheUsage(std::optional<unsigned long> spaceAvailable) : spaceAvailable_(spaceAvailable) {}
  std::optional<unsigned long> const& getSpaceAvailable() const { return spaceAvailable_; }

 private:
  std::optional<unsigned long> spaceAvailable_;
};

}  // namespace foundation::storage::provider
