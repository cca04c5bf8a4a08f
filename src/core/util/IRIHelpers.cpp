#include <core/util/IRIHelpers.hpp>

#include <fl/i18n.hpp>
#include <foundation/network/IRI.hpp>

namespace storage::overlayprovider {

StorageIRI stripHostFrom(StorageIRI const& iri) {
  foundation::network::IRIComponents components;  // no user info, host, query, fragment; port 0
  components.scheme = fl::i18n::to_string(iri.getScheme());
  components.path = fl::i18n::to_string(iri.getPath());
  return StorageIRI(foundation::network::IRI(std::move(components)));
}

StorageIRI getPhysicalURLFromFilteringURL(StorageIRI const& iri) {
  try {
    auto const plus = iri.getScheme().rfind(u'+');
    if (plus == std::u16string::npos) return iri;
    // The scheme opens the text, so its position is also the position in the text.
    return StorageIRI(iri.toString().substr(plus + 1));
  } catch (...) {
    return iri;
  }
}

StorageIRI getInnerMostURL(StorageIRI const& iri) {
  if (!iri.hasInnerIRI()) return getPhysicalURLFromFilteringURL(stripHostFrom(iri)).getResolvedIRI();

  StorageIRI const& direct = iri.getInnerIRI();
  StorageIRI const* innermost = &direct;
  while (innermost->hasInnerIRI()) innermost = &innermost->getInnerIRI();

  if (innermost->getPath() == u"/") return StorageIRI(stripHostFrom(*innermost), iri.getPath()).getResolvedIRI();
  if (iri.getScheme() == u"overlay") {
    // Without the host, as every other branch: the cache's keys have no authority, and a
    // key kept with it (an s3 bucket) would name a different entry than the same item
    // reached through a store's event. The store is one provider per authority, so the
    // path alone still addresses it.
    StorageIRI joined(direct, iri.getPath());
    return (joined.getAuthority().empty() ? joined : stripHostFrom(joined)).getResolvedIRI();
  }
  return iri.getResolvedIRI();
}

}  // namespace storage::overlayprovider
