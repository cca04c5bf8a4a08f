// The entry points by which the host's bundle runtime creates and destroys this bundle's
// component, and the bundle's context object. Only the loadable module carries them; the
// static library that tests link does not.
#include <core/provider/OverlayProviderFactory.hpp>

#include <foundation/storage/provider/BundleAbi.hpp>

#include <new>

namespace fsp = foundation::storage::provider;

// The bundle's context, set by the runtime before the component is created and cleared
// after it is destroyed.
extern "C" {
__attribute__((visibility("default"))) fsp::BundleContext* _us_bundle_context_instance_nimbrel_overlayprovider = nullptr;
}

OVL_BUNDLE_EXPORT fsp::BundleContext* _us_get_bundle_context_instance_nimbrel_overlayprovider() {
  return __atomic_load_n(&_us_bundle_context_instance_nimbrel_overlayprovider, __ATOMIC_ACQUIRE);
}

OVL_BUNDLE_EXPORT void _us_set_bundle_context_instance_nimbrel_overlayprovider(fsp::BundleContext* context) {
  __atomic_store_n(&_us_bundle_context_instance_nimbrel_overlayprovider, context, __ATOMIC_RELEASE);
}

// The component instance: the factory wrapped for the runtime. Null when memory runs out.
OVL_BUNDLE_EXPORT void* NewInstance_storage_overlayprovider_OverlayProviderFactory() {
  try {
    fsp::ComponentInstance* instance =
        new (std::nothrow) fsp::FactoryComponent<storage::overlayprovider::OverlayProviderFactory>();
    return instance;
  } catch (std::bad_alloc const&) {
    // The factory inside the component could not be allocated.
    return nullptr;
  }
}

// Destroys an instance made above through its virtual destructor; null is ignored.
OVL_BUNDLE_EXPORT void DeleteInstance_storage_overlayprovider_OverlayProviderFactory(void* instance) {
  delete static_cast<fsp::ComponentInstance*>(instance);
}
