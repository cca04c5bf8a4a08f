#include <providers/file/FileProvider.hpp>
#include <providers/file/FileProviderFactory.hpp>

namespace providers::file {

std::shared_ptr<foundation::storage::provider::IProvider> FileProviderFactory::createProvider(
    foundation::storage::provider::StorageItem const&) {
  return std::make_shared<FileProvider>();
}

foundation::storage::provider::StorageIRI FileProviderFactory::createContainerIRI(
    foundation::storage::provider::StorageItem const&) {
  return foundation::storage::provider::StorageIRI(u"file:///");
}

}  // namespace providers::file
