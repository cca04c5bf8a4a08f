// BundleRuntime: loads bundle modules and registers the factories they offer.
//
// `load` reads the manifest from the module file (its ".bundle.manifest" ELF section; see
// BundleAbi.hpp), checks it, opens the module with dlopen(RTLD_NOW | RTLD_LOCAL), resolves
// the four entry points, hands the bundle its BundleContext, creates the component and
// registers its ContainerProviderFactory in the ProviderRegistry under the manifest's
// "scheme". `unload` undoes that in reverse order.
//
// Linking. The host's code (the static `platform` library) exists once per process, in
// the executable. A module does not link `platform`, neither directly nor through another
// library's usage requirements: it is compiled against the platform headers and its
// undefined platform symbols (IProvider's default slots and type information, StorageIRI,
// Exception, ProviderRegistry, ...) are bound to the executable's when it is loaded. This
// keeps one copy of every class, type_info and static object, so exceptions, dynamic_cast
// and shared state work across the module boundary, under AddressSanitizer as well. For
// this the executable that loads bundles
//   - exports its symbols (-rdynamic, CMake ENABLE_EXPORTS), and
//   - contains all of `platform`, not only the objects it happens to use itself (linked
//     with --whole-archive);
// `ovl_bundle_host(<target>)` in cmake/OvlBundle.cmake does both, and
// `ovl_add_bundle(...)` builds a module with the platform's include directories and
// compile definitions but without linking it. A module that needs a platform symbol the
// host lacks fails to load with the loader's "undefined symbol" text. Everything in
// BundleAbi.hpp is header-only.
//
// Lifetime. Providers and factories made by a module run the module's code until they
// are destroyed, so the module stays mapped while any of them is alive: the factory that
// is registered, and every provider it makes, hold the module open, and `unload` closes
// it only when nothing made through them remains (then at once when nothing does).
// Objects a provider hands out (streams, iterators, callbacks' threads) must not outlive
// the provider that made them.
//
// Thread-safe: all members may be called from several threads at once; loads and unloads
// are serialised. The registry must outlive the runtime.
#pragma once

#include <foundation/storage/provider/BundleAbi.hpp>
#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <boost/property_tree/ptree.hpp>

#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace foundation::storage::provider {

// A module that could not be loaded, or a bundle that could not be unloaded. The message
// names the module file (where there is one) and the one thing that is wrong:
//   Cannot load bundle "<path>": <what is wrong>
//   Cannot unload bundle "<path>": <what is wrong>
class BundleError : public std::runtime_error {
 public:
  BundleError(std::string const& message, std::filesystem::path modulePath);
  // The module concerned; empty when the error names none.
  std::filesystem::path const& getModulePath() const noexcept { return modulePath_; }

 private:
  std::filesystem::path modulePath_;
};

// What the runtime knows about one loaded bundle. Immutable while the bundle is loaded.
struct LoadedBundle {
  long id = 0;                      // unique within the runtime, never reused
  std::string symbolicName;         // "bundle.symbolic_name"
  std::u16string scheme;            // "scheme", as the manifest writes it
  std::string implementationClass;  // of the first component
  std::filesystem::path modulePath; // absolute
  boost::property_tree::ptree manifest;
};

class BundleRuntime {
 public:
  // `registry` must outlive the runtime.
  explicit BundleRuntime(ProviderRegistry& registry);
  // Unloads every bundle still loaded, the last loaded first. Errors are swallowed.
  ~BundleRuntime();
  BundleRuntime(BundleRuntime const&) = delete;
  BundleRuntime& operator=(BundleRuntime const&) = delete;

  // Loads the module at `module` (absolute or relative to the current directory) and
  // registers its factory. The returned reference stays valid until the bundle is
  // unloaded. Throws BundleError when: the file does not exist; it is not a loadable
  // module (not an ELF64 file, a damaged one, or dlopen fails: the loader's text is
  // included); it has no ".bundle.manifest" section; the manifest is not JSON; it lacks
  // "bundle.symbolic_name", "scheme" or a component with an "implementation-class"; the
  // component does not list the ContainerProviderFactory interface; the scheme already has
  // a factory in the registry (from this or another source); an entry point is missing
  // (named); NewInstance_ returns null or throws; the component offers no factory. After a
  // failure nothing stays registered or loaded.
  LoadedBundle const& load(std::filesystem::path const& module);

  // Unregisters the bundle's scheme from the registry (forgetting the providers kept
  // there), destroys the component with DeleteInstance_, clears the bundle's context and
  // releases the module (see Lifetime). Throws BundleError when no loaded bundle has the
  // scheme (compared case-insensitively), or when `bundle` is not loaded by this runtime.
  void unload(std::u16string const& scheme);
  void unload(LoadedBundle const& bundle);

  // Copies of the loaded bundles' descriptions, in load order.
  std::vector<LoadedBundle> bundles() const;

  // The manifest text of the module file (without its terminating NUL), read from the
  // file without loading it. Throws BundleError for a missing file, a file that is not an
  // ELF64 module or is damaged, and a module without manifest.
  static std::string readManifestText(std::filesystem::path const& module);

 private:
  struct Module;
  struct Record;

  // Undoes `record`'s load. Caller holds mutex_ and has removed the record from bundles_.
  void release(Record& record) noexcept;

  ProviderRegistry& registry_;
  mutable std::mutex mutex_;  // guards bundles_ and nextId_
  std::list<std::unique_ptr<Record>> bundles_;
  long nextId_ = 1;
};

}  // namespace foundation::storage::provider
