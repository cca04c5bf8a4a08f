// ContainerProviderFactory: the service a bundle offers for one IRI scheme.
#pragma once

#include <foundation/storage/provider/StorageItem.hpp>

#include <memory>

namespace foundation::storage::provider {

class ContainerProviderFactory {
 public:
  virtual ~ContainerProviderFactory() = default;

  // A new provider for `item`. For providers that are laid over another store, `item` is
  // the inner store's item; for plain stores it carries no provider and its location is
  // the root the provider is to serve (for example "mem://s1/").
  virtual std::shared_ptr<IProvider> createProvider(StorageItem const& item) = 0;

  // The IRI under which the provider made for `item` is addressed.
  virtual StorageIRI createContainerIRI(StorageItem const& item) = 0;
};

}  // namespace foundation::storage::provider
