// OverlayProviderFactory: the service the bundle offers for the scheme "overlay".
// It keeps no state: every provider it makes is independent and owned by the caller.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.hpp>

namespace storage::overlayprovider {

class OverlayProviderFactory : public foundation::storage::provider::ContainerProviderFactory {
 public:
  ~OverlayProviderFactory() override = default;

  // A new OverlayProvider laid on `inner`, the inner store's item.
  std::shared_ptr<foundation::storage::provider::IProvider> createProvider(
      foundation::storage::provider::StorageItem const& inner) override;

  // "overlay:<L/>/" where L is the inner item's location: the overlay IRI of an inner
  // root always addresses the overlay's root folder.
  foundation::storage::provider::StorageIRI createContainerIRI(
      foundation::storage::provider::StorageItem const& inner) override;
};

}  // namespace storage::overlayprovider
