// LazyExtendedAttributes: the extended attributes of a metadata record, either held as a
// value or produced on first use.
//
// A holder built from a value keeps a copy of it. A holder built from a producer keeps
// the producer and nothing else until the attributes are first needed: then the producer
// is called once with the record's path and its result is kept; later reads use the kept
// value and never call the producer again. A producer that throws leaves the holder
// pending, so the next read calls it again.
//
// Compact, because every cached record has one: a producer is held through a shared
// pointer, so the records of one listing share a single producer; empty attributes take
// no allocation; and attributes whose values are all text (a store's watermark, say) are
// kept packed in one small block rather than as a map of boost::any values, and are
// unpacked when asked for.
//
// Not thread-safe on its own: every record guards its holder with the record's lock.
#pragma once

#include <foundation/storage/provider/ExtendedAttributes.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class LazyExtendedAttributes {
 public:
  // What a producer is called with: the record's path (`StorageIRI::getPath()`).
  using Producer = std::function<fsp::ExtendedAttributes(std::u16string)>;
  // A producer shared by many holders (the records of one listing).
  using SharedProducer = std::shared_ptr<Producer const>;

  // The name under which stores keep a file's watermark.
  static constexpr char const* kWatermark = "WATERMARK";

  // Holds empty attributes.
  LazyExtendedAttributes();
  // Holds a copy of `value`; no producer.
  explicit LazyExtendedAttributes(fsp::ExtendedAttributes const& value);
  // Holds `producer` and no value yet. An empty std::function produces empty attributes.
  explicit LazyExtendedAttributes(Producer producer);
  // As above for a shared producer; a null one produces empty attributes.
  explicit LazyExtendedAttributes(SharedProducer producer);

  // True while the producer has not yet delivered a value.
  bool isPending() const { return producer_ != nullptr; }

  // Runs the producer if the attributes are still pending, with the record's path
  // `path`. Passes on whatever the producer throws (the holder then stays pending).
  void produce(std::u16string const& path) {
    if (producer_) keep((*producer_ ? (*producer_)(path) : fsp::ExtendedAttributes()), true);
  }
  // The attributes held (produce() first).
  fsp::ExtendedAttributes value() const;
  // watermarkOf(value()), without unpacking.
  std::string watermark() const;

  // The watermark rule shared by files and folders: without a "WATERMARK" attribute the
  // text "WATERMARK" itself (callers compare watermarks as text, and a record without a
  // stored watermark compares equal only to another such record); otherwise the
  // attribute's text. Throws std::out_of_range ("Attribute for given type with name
  // WATERMARK not found.") when the attribute cannot be read or is not a std::string.
  static std::string watermarkOf(fsp::ExtendedAttributes const& attributes);

 private:
  // Holds `value` (packed when its values are all text); with `produced`, the producer
  // is done.
  void keep(fsp::ExtendedAttributes const& value, bool produced);

  SharedProducer producer_;                         // null once produced (or never pending)
  std::unique_ptr<fsp::ExtendedAttributes> value_;  // attributes not all text
  std::unique_ptr<char[]> packed_;                  // attributes all text; both null: empty
};

}  // namespace storage::overlayprovider
