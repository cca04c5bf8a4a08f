// S3ProviderFactory: makes `s3` stores for the provider registry, one per bucket
// ("s3://photos/2024/a.jpg" is served by the store of bucket "photos").
#pragma once

#include <providers/s3/S3Provider.hpp>

#include <foundation/storage/provider/ContainerProviderFactory.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <optional>

namespace providers::s3 {

class S3ProviderFactory : public foundation::storage::provider::ContainerProviderFactory {
 public:
  // Stores are made with `settings`, or with S3Settings::fromEnvironment() read when the
  // first store is made.
  explicit S3ProviderFactory(std::optional<S3Settings> settings = std::nullopt);

  // A store for the bucket named by the item's authority. std::invalid_argument when the
  // IRI names no bucket.
  std::shared_ptr<foundation::storage::provider::IProvider> createProvider(
      foundation::storage::provider::StorageItem const& item) override;
  // The bucket's root: the item's location with the path "/".
  foundation::storage::provider::StorageIRI createContainerIRI(
      foundation::storage::provider::StorageItem const& item) override;

 private:
  std::optional<S3Settings> const settings_;
};

// Registers an S3ProviderFactory (settings from the environment) under the scheme "s3".
void registerWith(foundation::storage::provider::ProviderRegistry& registry);

}  // namespace providers::s3
