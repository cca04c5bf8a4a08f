// ProviderRegistry: turns IRIs into StorageItems on the right provider.
//
// Factories are registered per scheme. Providers are made once per root and shared by
// every item under it:
// - a plain IRI ("mem://s1/a/b", "file:///srv/x") is served by the provider of its scheme
//   and authority ("mem://s1/", "file:///");
// - a wrapped IRI ("overlay:<file:///srv/>/a") is served by the provider that the wrapping
//   scheme's factory made for the item of the inner IRI, which is resolved first.
//
// Roots are compared in their resolved form, with scheme and authority lower-cased: the
// root of "MEM://S1/a" is "mem://s1/"; the root of "overlay:<file:///srv/./x/>/a" is
// "overlay:<file:///srv/x>/" (the inner IRI resolved, at every level of nesting). A
// wrapping factory receives the item of that resolved inner IRI.
//
// Factories are called without the registry's lock held, so that a factory may use the
// registry itself (for another root; two factories that each wait for the other's root
// from different threads would deadlock). Two threads asking for the same new root get
// the same provider: the second waits for the first to finish making it.
//
// Thread-safe: every member may be called from several threads at once.
#pragma once

#include <foundation/storage/provider/ContainerProviderFactory.hpp>

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace foundation::storage::provider {

class ProviderRegistry {
 public:
  ProviderRegistry() = default;
  ProviderRegistry(ProviderRegistry const&) = delete;
  ProviderRegistry& operator=(ProviderRegistry const&) = delete;

  // Registers `factory` for `scheme` (compared case-insensitively). A factory already
  // registered for the scheme is replaced; providers it made stay in use. Throws
  // std::invalid_argument when `scheme` is not a valid scheme or `factory` is null.
  void registerFactory(std::u16string const& scheme, std::shared_ptr<ContainerProviderFactory> factory);
  // Forgets the factory and every provider made or added for the scheme (without shutting
  // them down: items that hold them keep working). Does nothing for an unknown scheme.
  void unregisterFactory(std::u16string const& scheme);
  bool hasScheme(std::u16string const& scheme) const;

  // Makes `provider` the one that serves the root of `root` (see the class comment; any
  // path of `root` is ignored), replacing any earlier one. Used to hand a configured store
  // instance to the registry. Needs no factory for the scheme until a wrapped IRI over it
  // is resolved. Throws std::invalid_argument when `provider` is null.
  void addProvider(StorageIRI const& root, std::shared_ptr<IProvider> provider);

  // The item for `iri`: the provider of its root (made on first use) with `iri` as the
  // item's location, unchanged. Throws std::invalid_argument
  //   No storage provider is registered for scheme "x" (IRI: <iri>)
  // when no factory serves a scheme of `iri` (its own or one of an inner IRI) whose root
  // has no provider yet. Exceptions of a factory pass through unchanged; a factory that
  // returns no provider gives std::runtime_error naming the root. Nothing is cached after a
  // failure, so a later call tries again. Throws std::logic_error when a factory, while
  // making the provider for a root, resolves an IRI of that same root.
  StorageItem resolve(StorageIRI const& iri);
  // Parses `text` first (malformed IRIs throw the std::invalid_argument of StorageIRI).
  // Text that does not look like an IRI (see looksLikeIRI) is a local path, absolute or
  // relative to the current directory, and becomes the "file" IRI of its absolute,
  // lexically normal form ("a/../b" -> "file:///<cwd>/b"). Empty text throws
  // std::invalid_argument.
  StorageItem resolve(std::u16string const& text);
  // The same for UTF-8 text (invalid UTF-8 throws fl::i18n::conversion_error).
  StorageItem resolve(std::string const& utf8Text);

  // Shuts down every provider made or added, and forgets them. Wrapping providers are shut
  // down before the providers they may lay over (deepest nesting first), so that a
  // provider that writes back to its inner store on shutdown still can. Every provider is
  // shut down even when one throws; the first error is re-thrown afterwards. Providers
  // still being made while this runs are not affected.
  void shutdownAll();

  // The root key under which the provider for `iri` is kept: the resolved text of its
  // root; see the class comment. Throws what StorageIRI throws.
  static std::u16string rootKey(StorageIRI const& iri);

 private:
  // A provider being made by `creator`; other threads wait on `result`.
  struct Pending {
    std::thread::id creator;
    std::shared_future<std::shared_ptr<IProvider>> result;
  };

  // The provider for root `key` of `scheme`: the kept one, the one another thread is
  // making, or a new one made by the scheme's factory from the item `makeItem` returns
  // (called without mutex_ held). `asked` is what the caller asked for, named in errors.
  // Caller does not hold mutex_.
  std::shared_ptr<IProvider> obtain(std::u16string const& key, std::u16string const& scheme,
                                    std::function<StorageItem()> const& makeItem, StorageIRI const& asked);
  // The item for `iri`, one level of a nested IRI the caller asked for as `asked`.
  // Caller does not hold mutex_.
  StorageItem resolveItem(StorageIRI const& iri, StorageIRI const& asked);

  mutable std::mutex mutex_;  // guards factories_, providers_ and pending_
  std::map<std::u16string, std::shared_ptr<ContainerProviderFactory>> factories_;  // by lower-case scheme
  std::map<std::u16string, std::shared_ptr<IProvider>> providers_;                 // by root key
  std::map<std::u16string, Pending> pending_;                                      // by root key
};

// True when `text` starts like an IRI: it has a ":" before any "/", and the part before
// the ":" has two or more characters, so that "C:" style drive letters are not taken for
// schemes. The part before the ":" need not be a valid scheme ("1abc:/x" looks like an
// IRI, and parsing it then reports the bad scheme); a local file whose name holds a ":"
// is written with a directory ("./notes:1").
bool looksLikeIRI(std::u16string const& text);

}  // namespace foundation::storage::provider
