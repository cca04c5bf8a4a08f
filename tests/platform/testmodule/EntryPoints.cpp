// The entry points of the test bundle, written out (rather than with the BundleAbi macros)
// so that each call shows up in the journal. Compile-time switches make the broken
// variants:
//   OVL_TEST_OMIT_DELETE       no DeleteInstance_ entry point
//   OVL_TEST_NULL_INSTANCE     NewInstance_ returns null
//   OVL_TEST_UNDEFINED_SYMBOL  needs a symbol no host has, so the loader refuses it
#include "TestStore.hpp"

#include <foundation/storage/provider/BundleAbi.hpp>

#include <atomic>

namespace fsp = foundation::storage::provider;

#ifdef OVL_TEST_UNDEFINED_SYMBOL
extern "C" void ovl_symbol_no_host_defines();
#endif

namespace {

std::atomic<fsp::BundleContext*> context{nullptr};

class TestComponent final : public fsp::ComponentInstance {
 public:
  std::shared_ptr<fsp::ContainerProviderFactory> getFactory() override { return factory_; }

 private:
  std::shared_ptr<ovltest::TestProviderFactory> const factory_ = std::make_shared<ovltest::TestProviderFactory>();
};

}  // namespace

OVL_BUNDLE_EXPORT void _us_set_bundle_context_instance_ovl_test_module(fsp::BundleContext* c) {
  ovltest::journal(c ? "context-set " + c->getSymbolicName() + " #" + std::to_string(c->getBundleId()) + " " +
                           c->getManifest().get<std::string>("scheme")
                     : std::string("context-cleared"));
  context.store(c);
}

OVL_BUNDLE_EXPORT fsp::BundleContext* _us_get_bundle_context_instance_ovl_test_module() { return context.load(); }

OVL_BUNDLE_EXPORT void* NewInstance_ovltest_TestProviderFactory() {
#ifdef OVL_TEST_UNDEFINED_SYMBOL
  ovl_symbol_no_host_defines();
#endif
#ifdef OVL_TEST_NULL_INSTANCE
  ovltest::journal("new-instance null");
  return nullptr;
#else
  ovltest::journal(context.load() ? "new-instance" : "new-instance without context");
  std::unique_ptr<fsp::ComponentInstance> instance = std::make_unique<TestComponent>();
  return instance.release();
#endif
}

#ifndef OVL_TEST_OMIT_DELETE
OVL_BUNDLE_EXPORT void DeleteInstance_ovltest_TestProviderFactory(void* instance) {
  ovltest::journal("delete-instance");
  std::unique_ptr<fsp::ComponentInstance> owned(static_cast<fsp::ComponentInstance*>(instance));
}
#endif
