// MemoryProviderFactory: makes `mem` stores for the provider registry, one per root
// ("mem://s1/" makes the store named "s1").
#pragma once

#include <providers/mem/MemoryProvider.hpp>

#include <foundation/storage/provider/ContainerProviderFactory.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>

namespace providers::mem {

class MemoryProviderFactory : public foundation::storage::provider::ContainerProviderFactory {
 public:
  // Stores are made with `defaults`, their name replaced by the item's authority.
  MemoryProviderFactory();
  explicit MemoryProviderFactory(MemoryProvider::Options defaults);

  // A new, empty MemoryProvider named after the authority of `item.getLocation()`
  // (mem://s1/ -> "s1"). Never null.
  std::shared_ptr<foundation::storage::provider::IProvider> createProvider(
      foundation::storage::provider::StorageItem const& item) override;
  // The root of the item's location: its path replaced by "/".
  foundation::storage::provider::StorageIRI createContainerIRI(
      foundation::storage::provider::StorageItem const& item) override;

 private:
  MemoryProvider::Options const defaults_;
};

// Registers a MemoryProviderFactory with default options under the scheme "mem".
void registerWith(foundation::storage::provider::ProviderRegistry& registry);

}  // namespace providers::mem
