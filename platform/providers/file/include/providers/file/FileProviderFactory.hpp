// FileProviderFactory: makes FileProviders for the "file" scheme, and the function that
// registers it with a ProviderRegistry.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <memory>

namespace providers::file {

class FileProviderFactory : public foundation::storage::provider::ContainerProviderFactory {
 public:
  // A new FileProvider. The file store serves the whole local file system, so the item
  // (its provider and location) is not looked at.
  std::shared_ptr<foundation::storage::provider::IProvider> createProvider(
      foundation::storage::provider::StorageItem const& item) override;

  // "file:///", whatever the item.
  foundation::storage::provider::StorageIRI createContainerIRI(
      foundation::storage::provider::StorageItem const& item) override;
};

// Registers a FileProviderFactory under the scheme "file".
void registerWith(foundation::storage::provider::ProviderRegistry& registry);

}  // namespace providers::file
