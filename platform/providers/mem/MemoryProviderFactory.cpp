#include <providers/mem/MemoryProviderFactory.hpp>

namespace providers::mem {

MemoryProviderFactory::MemoryProviderFactory() : MemoryProviderFactory(MemoryProvider::Options{}) {}

MemoryProviderFactory::MemoryProviderFactory(MemoryProvider::Options defaults) : defaults_(std::move(defaults)) {}

std::shared_ptr<foundation::storage::provider::IProvider> MemoryProviderFactory::createProvider(
    foundation::storage::provider::StorageItem const& item) {
  auto options = defaults_;
  options.name = item.getLocation().getAuthority();
  return std::make_shared<MemoryProvider>(std::move(options));
}

foundation::storage::provider::StorageIRI MemoryProviderFactory::createContainerIRI(
    foundation::storage::provider::StorageItem const& item) {
  return item.getLocation().withPath(u"/");
}

}  // namespace providers::mem
