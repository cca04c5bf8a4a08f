// Names on the content cache's disk: the cache root's unique suffix and the cache file
// name of an overlay location.
//
// Layout:  <cache root>/<version "V1.0">/<computeHashForIRI(location)>.cache
// The default cache root is the host's temporary directory joined with
// "overlay_cache-" + generateUUIDString(). All cache files lie flat in the data
// directory.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <string>

namespace storage::overlayprovider {

// A random (version 4) UUID from the operating system's random source, as its canonical
// 36-character lower-case text with hyphens. Throws boost::uuids::entropy_error when the
// random source cannot be read. Thread-safe.
std::u16string generateUUIDString();

namespace detail {

// The base name of `location`'s cache file, without the ".cache" extension: the BLAKE2b
// digest (64 bytes) of the location's full text in UTF-8, encoded as unpadded Base64 with
// the URL- and filename-safe alphabet (86 characters of A-Z a-z 0-9 '-' '_'). A pure
// function of the text: the same location gets the same name in every process.
//
// The crypto engine is built once per process, on first use, and shared; each call
// uses a digest engine of its own, so the function is thread-safe. Throws
// fl::i18n::internal_runtime_error when the text holds an unpaired UTF-16 surrogate.
std::u16string computeHashForIRI(foundation::storage::provider::StorageIRI const& location);

}  // namespace detail
}  // namespace storage::overlayprovider
