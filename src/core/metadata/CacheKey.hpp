// CacheKey: the form under which the metadata cache files records, the inner-most IRI
// (getInnerMostURL), with a shortcut for IRIs already in that form.
//
// An IRI in key form (no query or fragment, a lower-case scheme without "+", a resolved
// path of plain characters, and either no inner IRI and no authority, or an inner IRI
// whose inner-most path is not the root under a scheme other than "overlay") is its own
// inner-most IRI, and so is its parent; the text of each of its folders is a prefix of
// its own text. Pure and thread-safe.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <cstddef>
#include <optional>
#include <string_view>

namespace storage::overlayprovider {

class CacheKey {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;

  // getInnerMostURL(iri); an IRI in key form is returned as it is, without the round
  // trip through the network IRI that the mapping makes. Throws what getInnerMostURL
  // throws.
  static StorageIRI getInnerMostURL(StorageIRI const& iri);
  // True when `iri` is in key form.
  static bool isKeyForm(StorageIRI const& iri);
  // The text of the parent of a key in key form that has a parent: the key's text
  // without its last segment ("mem:///a/b" -> "mem:///a", "mem:///a" -> "mem:///",
  // "t:<mem:///r>/a" -> "t:<mem:///r>/"), as the parent's IRI would render it. The first
  // form takes the key's text and the position where its path begins.
  static std::u16string_view parentTextOf(std::u16string_view text, std::size_t pathStart);
  static std::u16string_view parentTextOf(StorageIRI const& key);

  // The key of `iri`, without copying an argument that is already in key form. Refers
  // to `iri`, which must outlive it.
  explicit CacheKey(StorageIRI const& iri);
  CacheKey(CacheKey const&) = delete;
  CacheKey& operator=(CacheKey const&) = delete;

  StorageIRI const& get() const { return *key_; }
  // The key is in key form, so its parent's text is its parent's key.
  bool plain() const { return plain_; }

 private:
  bool plain_;
  std::optional<StorageIRI> mapped_;
  StorageIRI const* key_;
};

}  // namespace storage::overlayprovider
