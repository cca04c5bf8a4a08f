// ProviderRegistry: turns IRIs into StorageItems on the right provider.
//
// Factories are registered per scheme. Providers are made once per root and shared by
// every item under it:
// - a plain IRI ("mem://s1/a/b", "file:///srv/x") is served by the provider of its scheme
//   and authority ("mem://s1/", "file:///");
// - a wrapped IRI ("overlay:<file:///srv/>/a") is served by the provider that the wrapping
//   scheme's factory made for the item of the inner IRI, which is resolved first.
// Thread-safe.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.hpp>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace foundation::storage::provider {

class ProviderRegistry {
 public:
  ProviderRegistry() = default;
  ProviderRegistry(ProviderRegistry const&) = delete;
  ProviderRegistry& operator=(ProviderRegistry const&) = delete;

  // Registers `factory` for `scheme` (compared case-insensitively). A factory already
  // registered for the scheme is replaced; providers it made stay in use.
  void registerFactory(std::u16string const& scheme, std::shared_ptr<ContainerProviderFactory> factory);
  // Forgets the factory and every provider made for the scheme.
  void unregisterFactory(std::u16string const& scheme);
  bool hasScheme(std::u16string const& scheme) const;

  // Makes `provider` the one that serves the root `root` (its scheme and authority, or its
  // whole text for a wrapped IRI), replacing any earlier one. Used to hand a configured
  // store instance to the registry.
  void addProvider(StorageIRI const& root, std::shared_ptr<IProvider> provider);

  // The item for `iri`. Throws std::invalid_argument naming the IRI when no factory serves
  // its scheme.
  StorageItem resolve(StorageIRI const& iri);
  // Parses `text` first. Text without a scheme (an absolute or relative local path) is
  // taken as a local path and becomes a "file" IRI of its absolute form.
  StorageItem resolve(std::u16string const& text);
  StorageItem resolve(std::string const& utf8Text);

  // Shuts down every provider made or added, and forgets them.
  void shutdownAll();

 private:
  // The root key for `iri`; see the class comment.
  static std::u16string rootKey(StorageIRI const& iri);

  mutable std::mutex mutex_;  // guards factories_ and providers_
  std::map<std::u16string, std::shared_ptr<ContainerProviderFactory>> factories_;
  std::map<std::u16string, std::shared_ptr<IProvider>> providers_;
};

// True when `text` starts like an IRI ("scheme:" with a scheme of two or more
// characters, so that "C:" style drive letters are not taken for schemes).
bool looksLikeIRI(std::u16string const& text);

}  // namespace foundation::storage::provider
