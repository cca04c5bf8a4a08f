// Mapping overlay IRIs to the plain IRI of the physical location.
//
// An overlay IRI names a location in the inner provider either by nesting
// ("overlay:<file:///srv/data/>/docs/a.txt", possibly several levels deep) or through a
// compound "filtering" scheme, prefix "+" real scheme ("sync+file:///data/x"). The
// result of getInnerMostURL is the key of cached entries and the argument of
// inner-provider calls. All three functions are pure and thread-safe.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

namespace storage::overlayprovider {

using foundation::storage::provider::StorageIRI;

// The IRI with scheme and path only: authority (host, user, port), query and fragment
// are dropped ("mem://s1/a?q#f" -> "mem:///a"). Built from network IRI components whose
// UTF-16 text is converted to UTF-8 by fl::i18n::to_string.
// Throws fl::i18n::internal_runtime_error ("Misplaced UTF-16 surrogate U+XXXX
// encountered while trying to encode UTF-32") when the scheme or path holds an unpaired
// surrogate, and std::invalid_argument when the result cannot be parsed.
StorageIRI stripHostFrom(StorageIRI const& iri);

// For a scheme holding "+", the IRI whose text is what follows the last "+"
// ("sync+file:///data/x" -> "file:///data/x", "a+b+file:///x" -> "file:///x");
// otherwise `iri` itself. Never throws: if the remainder is not an IRI, returns `iri`.
StorageIRI getPhysicalURLFromFilteringURL(StorageIRI const& iri);

// The resolved physical IRI behind `iri`:
//  - no inner IRI: getPhysicalURLFromFilteringURL(stripHostFrom(iri)), resolved;
//  - innermost IRI (following inner IRIs to the end) with path "/": the innermost IRI
//    without its host, joined with the outer path, resolved (the paths of intermediate
//    levels are not used);
//  - otherwise, scheme exactly "overlay": the direct inner IRI joined with the outer
//    path, without its host, resolved ("overlay:<s3://bucket/work/>/a" ->
//    "s3:///work/a");
//  - otherwise: `iri` resolved.
// Lets the exceptions of stripHostFrom and of IRI construction propagate.
StorageIRI getInnerMostURL(StorageIRI const& iri);

}  // namespace storage::overlayprovider
