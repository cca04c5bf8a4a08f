// Kept apart from MemoryProviderFactory.cpp so that programs using the factory without a
// registry do not need the registry's code.
#include <providers/mem/MemoryProviderFactory.hpp>

namespace providers::mem {

void registerWith(foundation::storage::provider::ProviderRegistry& registry) {
  registry.registerFactory(u"mem", std::make_shared<MemoryProviderFactory>());
}

}  // namespace providers::mem
