// Kept apart from the factory so that programs which never register the factory do not
// need the registry's implementation at link time.
#include <providers/file/FileProviderFactory.hpp>

namespace providers::file {

void registerWith(foundation::storage::provider::ProviderRegistry& registry) {
  registry.registerFactory(u"file", std::make_shared<FileProviderFactory>());
}

}  // namespace providers::file
