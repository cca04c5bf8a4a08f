#include <core/provider/OverlayProviderFactory.hpp>

#include <core/provider/OverlayProvider.hpp>

namespace storage::overlayprovider {

std::shared_ptr<foundation::storage::provider::IProvider> OverlayProviderFactory::createProvider(
    foundation::storage::provider::StorageItem const& inner) {
  return std::make_shared<OverlayProvider>(inner);
}

foundation::storage::provider::StorageIRI OverlayProviderFactory::createContainerIRI(
    foundation::storage::provider::StorageItem const& inner) {
  using foundation::storage::provider::StorageIRI;
  StorageIRI const innerIRI(inner.getLocation(), u"/");
  return StorageIRI(u"overlay", innerIRI, u"/");
}

}  // namespace storage::overlayprovider
