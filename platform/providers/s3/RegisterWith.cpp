// Kept apart from the factory so that programs which never register the factory do not
// need the registry's implementation at link time.
#include <providers/s3/S3ProviderFactory.hpp>

namespace providers::s3 {

void registerWith(foundation::storage::provider::ProviderRegistry& registry) {
  registry.registerFactory(kScheme, std::make_shared<S3ProviderFactory>());
}

}  // namespace providers::s3
