// LazyExtendedAttributes: the extended attributes of a metadata record, either held as a
// value or produced on first use.
//
// A holder built from a value keeps a copy of it. A holder built from a producer keeps
// the producer and nothing else until the attributes are first needed: then `get(path)`
// calls the producer once with the record's path and keeps its result; later reads use
// the kept value and never call the producer again. A producer that throws leaves the
// holder pending, so the next read calls it again.
//
// Not thread-safe on its own: every record guards its holder with the record's mutex.
#pragma once

#include <foundation/storage/provider/ExtendedAttributes.hpp>

#include <functional>
#include <memory>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class LazyExtendedAttributes {
 public:
  // What a producer is called with: the record's path (`StorageIRI::getPath()`).
  using Producer = std::function<fsp::ExtendedAttributes(std::u16string)>;

  // The name under which stores keep a file's watermark.
  static constexpr char const* kWatermark = "WATERMARK";

  // Holds empty attributes.
  LazyExtendedAttributes();
  // Holds a copy of `value`; no producer.
  explicit LazyExtendedAttributes(fsp::ExtendedAttributes value);
  // Holds `producer` and no value yet. An empty std::function produces empty attributes.
  explicit LazyExtendedAttributes(Producer producer);

  // True while the producer has not yet delivered a value.
  bool isPending() const { return value_ == nullptr; }

  // The attributes, produced now with `path` if still pending. Passes on whatever the
  // producer throws (the holder then stays pending).
  fsp::ExtendedAttributes const& get(std::u16string const& path);

  // The watermark rule shared by files and folders: without a "WATERMARK" attribute the
  // text "WATERMARK" itself (callers compare watermarks as text, and a record without a
  // stored watermark compares equal only to another such record); otherwise the
  // attribute's text. Throws std::out_of_range ("Attribute for given type with name
  // WATERMARK not found.") when the attribute cannot be read or is not a std::string.
  static std::string watermarkOf(fsp::ExtendedAttributes const& attributes);

 private:
  Producer producer_;
  std::unique_ptr<fsp::ExtendedAttributes> value_;  // null while pending
};

}  // namespace storage::overlayprovider
