#include <providers/s3/S3ProviderFactory.hpp>

#include <fl/i18n.hpp>

#include <stdexcept>

namespace providers::s3 {

namespace sp = foundation::storage::provider;

S3ProviderFactory::S3ProviderFactory(std::optional<S3Settings> settings) : settings_(std::move(settings)) {}

std::shared_ptr<sp::IProvider> S3ProviderFactory::createProvider(sp::StorageItem const& item) {
  auto const& location = item.getLocation();
  if (location.getAuthority().empty()) {
    throw std::invalid_argument("an S3 IRI names its bucket: s3://BUCKET/PATH, not " + location.toUtf8());
  }
  return std::make_shared<S3Provider>(fl::i18n::to_string(location.getAuthority()),
                                      settings_ ? *settings_ : S3Settings::fromEnvironment());
}

sp::StorageIRI S3ProviderFactory::createContainerIRI(sp::StorageItem const& item) {
  return item.getLocation().withPath(u"/");
}

}  // namespace providers::s3
