// BundleAbi: what a loadable bundle module and the host's BundleRuntime agree on.
//
// A bundle module is a shared library (CMake `add_library(x MODULE ...)`, best made with
// `ovl_add_bundle` from cmake/OvlBundle.cmake) that carries its manifest, a JSON document,
// NUL-terminated in the ELF section ".bundle.manifest". The manifest keys the runtime uses:
//
//     {
//       "bundle.symbolic_name": "nimbrel_overlayprovider",
//       "scheme": "overlay",
//       "scr": { "components": [ {
//           "implementation-class": "storage::overlayprovider::OverlayProviderFactory",
//           "service": { "interfaces": [ "foundation::storage::provider::ContainerProviderFactory" ] }
//       } ] }
//     }
//
// The module exports four C entry points, named after the manifest (<C> is the first
// component's implementation class with every "::" replaced by "_", <N> the symbolic
// name, which must therefore be a C identifier):
//
//     extern "C" void* NewInstance_<C>();
//         A new component instance: a `ComponentInstance*` passed as void*, owned by the
//         caller until handed back to DeleteInstance_<C>. Null, or an exception, is a
//         failure.
//     extern "C" void DeleteInstance_<C>(void* instance);
//         Destroys what NewInstance_<C> returned.
//     extern "C" void _us_set_bundle_context_instance_<N>(BundleContext* context);
//         Called with the bundle's context before NewInstance_<C>, and with nullptr after
//         DeleteInstance_<C> when the bundle is unloaded.
//     extern "C" BundleContext* _us_get_bundle_context_instance_<N>();
//         The context last set (null when none).
//
// `OVL_BUNDLE_CONTEXT(N)` and `OVL_BUNDLE_COMPONENT(C, FactoryClass)` below define them.
//
// Everything here is header-only, so a module needs no symbol of the host to use it. How a
// module gets the host's other symbols is described in BundleRuntime.hpp.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.hpp>

#include <boost/property_tree/ptree.hpp>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

namespace foundation::storage::provider {

class ProviderRegistry;

// What the host tells a loaded bundle about itself. Made by the BundleRuntime before the
// module's component is created; valid until the context setter is called with nullptr.
// Immutable; the registry it refers to is thread-safe.
class BundleContext {
 public:
  BundleContext(long bundleId, std::string symbolicName, std::filesystem::path modulePath,
                boost::property_tree::ptree manifest, ProviderRegistry& registry)
      : bundleId_(bundleId),
        symbolicName_(std::move(symbolicName)),
        modulePath_(std::move(modulePath)),
        manifest_(std::move(manifest)),
        registry_(registry) {}
  BundleContext(BundleContext const&) = delete;
  BundleContext& operator=(BundleContext const&) = delete;

  // Unique among the bundles one runtime has loaded; never reused.
  long getBundleId() const { return bundleId_; }
  std::string const& getSymbolicName() const { return symbolicName_; }
  // The absolute path of the module file.
  std::filesystem::path const& getModulePath() const { return modulePath_; }
  boost::property_tree::ptree const& getManifest() const { return manifest_; }
  // The registry the bundle's factory is registered with.
  ProviderRegistry& getRegistry() const { return registry_; }

 private:
  long const bundleId_;
  std::string const symbolicName_;
  std::filesystem::path const modulePath_;
  boost::property_tree::ptree const manifest_;
  ProviderRegistry& registry_;
};

// The object NewInstance_<C> returns: one component of a bundle, offering its factory.
class ComponentInstance {
 public:
  virtual ~ComponentInstance() = default;
  // The factory the component offers; the runtime registers it under the manifest's
  // scheme. May be called more than once and returns the same factory each time. Null is
  // a failure.
  virtual std::shared_ptr<ContainerProviderFactory> getFactory() = 0;
};

// A component that offers one default-constructed `Factory`.
template <class Factory>
class FactoryComponent final : public ComponentInstance {
 public:
  FactoryComponent() : factory_(std::make_shared<Factory>()) {}
  std::shared_ptr<ContainerProviderFactory> getFactory() override { return factory_; }

 private:
  std::shared_ptr<Factory> const factory_;
};

namespace bundle_abi {

using NewInstanceFunction = void* (*)();
using DeleteInstanceFunction = void (*)(void*);
using SetContextFunction = void (*)(BundleContext*);
using GetContextFunction = BundleContext* (*)();

// The section of the module file that holds the manifest.
inline constexpr char const* kManifestSection = ".bundle.manifest";
// The interface a component must list under "service"/"interfaces".
inline constexpr char const* kFactoryInterface = "foundation::storage::provider::ContainerProviderFactory";

// "storage::overlayprovider::OverlayProviderFactory" -> "storage_overlayprovider_OverlayProviderFactory".
inline std::string entryPointSuffix(std::string const& implementationClass) {
  std::string out;
  out.reserve(implementationClass.size());
  for (std::size_t i = 0; i < implementationClass.size(); ++i) {
    if (implementationClass.compare(i, 2, "::") == 0) {
      out += '_';
      ++i;
    } else {
      out += implementationClass[i];
    }
  }
  return out;
}
inline std::string newInstanceSymbol(std::string const& implementationClass) {
  return "NewInstance_" + entryPointSuffix(implementationClass);
}
inline std::string deleteInstanceSymbol(std::string const& implementationClass) {
  return "DeleteInstance_" + entryPointSuffix(implementationClass);
}
inline std::string setContextSymbol(std::string const& symbolicName) {
  return "_us_set_bundle_context_instance_" + symbolicName;
}
inline std::string getContextSymbol(std::string const& symbolicName) {
  return "_us_get_bundle_context_instance_" + symbolicName;
}

}  // namespace bundle_abi
}  // namespace foundation::storage::provider

#define OVL_BUNDLE_EXPORT extern "C" __attribute__((visibility("default")))

// Defines the context setter and getter of the bundle with symbolic name `name` (a bare
// identifier). Use once per module, at namespace scope.
#define OVL_BUNDLE_CONTEXT(name)                                                                      \
  namespace {                                                                                         \
  std::atomic<::foundation::storage::provider::BundleContext*> ovlBundleContext_##name{nullptr};      \
  }                                                                                                   \
  OVL_BUNDLE_EXPORT void _us_set_bundle_context_instance_##name(                                      \
      ::foundation::storage::provider::BundleContext* context) {                                      \
    ovlBundleContext_##name.store(context);                                                           \
  }                                                                                                   \
  OVL_BUNDLE_EXPORT ::foundation::storage::provider::BundleContext* _us_get_bundle_context_instance_##name() { \
    return ovlBundleContext_##name.load();                                                            \
  }

// Defines NewInstance_<suffix> and DeleteInstance_<suffix> for a component that offers one
// default-constructed `FactoryClass`; `suffix` is the implementation class with "::"
// replaced by "_" (a bare identifier). Use once per module, at namespace scope.
#define OVL_BUNDLE_COMPONENT(suffix, FactoryClass)                                                          \
  OVL_BUNDLE_EXPORT void* NewInstance_##suffix() {                                                          \
    std::unique_ptr<::foundation::storage::provider::ComponentInstance> instance =                          \
        std::make_unique<::foundation::storage::provider::FactoryComponent<FactoryClass>>();                \
    return instance.release();                                                                              \
  }                                                                                                         \
  OVL_BUNDLE_EXPORT void DeleteInstance_##suffix(void* instance) {                                          \
    std::unique_ptr<::foundation::storage::provider::ComponentInstance> owned(                              \
        static_cast<::foundation::storage::provider::ComponentInstance*>(instance));                        \
  }
