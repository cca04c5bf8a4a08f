#include <foundation/storage/provider/ProviderRegistry.hpp>

#include <fl/i18n.hpp>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace foundation::storage::provider {

namespace {

std::u16string asciiLower(std::u16string text) {
  for (auto& c : text) {
    if (c >= u'A' && c <= u'Z') c = static_cast<char16_t>(c - u'A' + u'a');
  }
  return text;
}

bool isValidScheme(std::u16string const& scheme) {
  auto letter = [](char16_t c) { return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z'); };
  if (scheme.empty() || !letter(scheme.front())) return false;
  return std::all_of(scheme.begin(), scheme.end(), [&](char16_t c) {
    return letter(c) || (c >= u'0' && c <= u'9') || c == u'+' || c == u'-' || c == u'.';
  });
}

// Text for messages: UTF-8 where the text converts, '?' for what does not.
std::string printable(std::u16string const& text) {
  try {
    return fl::i18n::to_string(text);
  } catch (std::exception const&) {
    std::string out;
    for (auto c : text) out += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '?';
    return out;
  }
}

// `iri` with every level of nesting resolved.
StorageIRI deepResolved(StorageIRI const& iri) {
  if (!iri.hasInnerIRI()) return iri.getResolvedIRI();
  return StorageIRI(iri.getScheme(), deepResolved(iri.getInnerIRI()), iri.getPath()).getResolvedIRI();
}

std::size_t nestingDepth(std::u16string const& key) {
  return static_cast<std::size_t>(std::count(key.begin(), key.end(), u'<'));
}

}  // namespace

bool looksLikeIRI(std::u16string const& text) {
  auto const colon = text.find(u':');
  if (colon == std::u16string::npos || colon < 2) return false;
  auto const slash = text.find(u'/');
  return slash == std::u16string::npos || colon < slash;
}

std::u16string ProviderRegistry::rootKey(StorageIRI const& iri) {
  if (iri.hasInnerIRI()) {
    return StorageIRI(iri.getScheme(), deepResolved(iri.getInnerIRI()), u"/").getResolvedIRI().toString();
  }
  return iri.withPath(u"/").getResolvedIRI().toString();
}

void ProviderRegistry::registerFactory(std::u16string const& scheme, std::shared_ptr<ContainerProviderFactory> factory) {
  if (!isValidScheme(scheme)) throw std::invalid_argument("Invalid scheme \"" + printable(scheme) + "\" for a storage provider factory");
  if (!factory) throw std::invalid_argument("No factory given for scheme \"" + printable(scheme) + "\"");
  std::lock_guard lock(mutex_);
  factories_[asciiLower(scheme)] = std::move(factory);
}

void ProviderRegistry::unregisterFactory(std::u16string const& scheme) {
  auto const schemeKey = asciiLower(scheme);
  auto const prefix = schemeKey + u":";
  std::vector<std::shared_ptr<IProvider>> forgotten;  // released after the lock
  std::shared_ptr<ContainerProviderFactory> factory;
  {
    std::lock_guard lock(mutex_);
    if (auto it = factories_.find(schemeKey); it != factories_.end()) {
      factory = std::move(it->second);
      factories_.erase(it);
    }
    for (auto it = providers_.begin(); it != providers_.end();) {
      if (it->first.compare(0, prefix.size(), prefix) == 0) {
        forgotten.push_back(std::move(it->second));
        it = providers_.erase(it);
      } else {
        ++it;
      }
    }
  }
}

bool ProviderRegistry::hasScheme(std::u16string const& scheme) const {
  std::lock_guard lock(mutex_);
  return factories_.count(asciiLower(scheme)) != 0;
}

void ProviderRegistry::addProvider(StorageIRI const& root, std::shared_ptr<IProvider> provider) {
  if (!provider) throw std::invalid_argument("No provider given for root " + root.toUtf8());
  auto key = rootKey(root);
  std::shared_ptr<IProvider> replaced;  // released after the lock
  std::lock_guard lock(mutex_);
  auto& slot = providers_[std::move(key)];
  replaced = std::move(slot);
  slot = std::move(provider);
}

std::shared_ptr<IProvider> ProviderRegistry::obtain(std::u16string const& key, std::u16string const& scheme,
                                                    std::function<StorageItem()> const& makeItem,
                                                    StorageIRI const& asked) {
  auto const schemeKey = asciiLower(scheme);
  std::unique_lock lock(mutex_);
  if (auto it = providers_.find(key); it != providers_.end()) return it->second;
  if (auto it = pending_.find(key); it != pending_.end()) {
    if (it->second.creator == std::this_thread::get_id()) {
      throw std::logic_error("The provider for " + printable(key) +
                             " was asked for while it is being made (its factory resolves an IRI of its own root; IRI: " +
                             asked.toUtf8() + ")");
    }
    auto result = it->second.result;
    lock.unlock();
    return result.get();
  }
  auto factoryIt = factories_.find(schemeKey);
  if (factoryIt == factories_.end()) {
    throw std::invalid_argument("No storage provider is registered for scheme \"" + printable(scheme) +
                                "\" (IRI: " + asked.toUtf8() + ")");
  }
  auto const factory = factoryIt->second;
  std::promise<std::shared_ptr<IProvider>> promise;
  pending_.emplace(key, Pending{std::this_thread::get_id(), promise.get_future().share()});
  lock.unlock();

  std::shared_ptr<IProvider> provider;
  std::exception_ptr error;
  try {
    provider = factory->createProvider(makeItem());
    if (!provider) {
      throw std::runtime_error("The storage provider factory for scheme \"" + printable(schemeKey) +
                               "\" made no provider for " + printable(key) + " (IRI: " + asked.toUtf8() + ")");
    }
  } catch (...) {
    error = std::current_exception();
  }

  lock.lock();
  pending_.erase(key);
  if (!error) {
    // Keep the provider only while the factory that made it is still the scheme's; a
    // provider added for the root meanwhile wins over the one just made.
    auto current = factories_.find(schemeKey);
    if (current != factories_.end() && current->second == factory) {
      provider = providers_.try_emplace(key, provider).first->second;
    }
  }
  lock.unlock();

  if (error) {
    promise.set_exception(error);
    std::rethrow_exception(error);
  }
  promise.set_value(provider);
  return provider;
}

StorageItem ProviderRegistry::resolveItem(StorageIRI const& iri, StorageIRI const& asked) {
  auto const key = rootKey(iri);
  std::shared_ptr<IProvider> provider;
  if (iri.hasInnerIRI()) {
    provider = obtain(key, iri.getScheme(),
                      [&] {
                        auto const& inner = iri.getInnerIRI();
                        return StorageItem(resolveItem(inner, asked).getProvider(), deepResolved(inner));
                      },
                      asked);
  } else {
    provider = obtain(key, iri.getScheme(), [&] { return StorageItem(nullptr, StorageIRI(key)); }, asked);
  }
  return StorageItem(std::move(provider), iri);
}

StorageItem ProviderRegistry::resolve(StorageIRI const& iri) { return resolveItem(iri, iri); }

StorageItem ProviderRegistry::resolve(std::u16string const& text) {
  if (text.empty()) throw std::invalid_argument("An empty text is neither an IRI nor a local path");
  if (looksLikeIRI(text)) return resolve(StorageIRI(text));

  auto absolute = std::filesystem::absolute(std::filesystem::path(fl::i18n::to_string(text))).lexically_normal();
  std::string path = absolute.generic_string();
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  // Joined rather than parsed, so that a "?" or "#" in a file name stays in the path.
  return resolve(StorageIRI(StorageIRI(u"file:///"), fl::i18n::to_ustring(path)));
}

StorageItem ProviderRegistry::resolve(std::string const& utf8Text) { return resolve(fl::i18n::to_ustring(utf8Text)); }

void ProviderRegistry::shutdownAll() {
  std::map<std::u16string, std::shared_ptr<IProvider>> providers;
  {
    std::lock_guard lock(mutex_);
    providers.swap(providers_);
  }
  std::vector<std::pair<std::size_t, std::shared_ptr<IProvider>>> order;
  for (auto& [key, provider] : providers) {
    auto const& current = provider;  // clang 14 cannot capture a structured binding
    bool const seen = std::any_of(order.begin(), order.end(), [&](auto const& p) { return p.second == current; });
    if (!seen) order.emplace_back(nestingDepth(key), provider);
  }
  std::stable_sort(order.begin(), order.end(), [](auto const& a, auto const& b) { return a.first > b.first; });

  std::exception_ptr first;
  for (auto& [depth, provider] : order) {
    try {
      provider->doShutdown();
    } catch (...) {
      if (!first) first = std::current_exception();
    }
  }
  if (first) std::rethrow_exception(first);
}

}  // namespace foundation::storage::provider
