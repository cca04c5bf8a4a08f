// FolderMetadata: what the metadata cache knows about one folder of the inner store.
//
// One record object is shared (std::shared_ptr) by the folder's own entry, the entry of
// its parent that lists it, the frozen snapshot and any caller that asked for it; a
// change made through one holder is seen by all. The location is the inner-most IRI of
// the folder.
//
// Thread-safety: every operation takes the record's own mutex for its whole duration and
// takes no other lock while holding it, so records may be used under the cache lock or a
// folder entry's lock. An extended-attributes producer runs under the record's mutex, so
// two concurrent readers never run it twice.
#pragma once

#include <core/metadata/LazyExtendedAttributes.hpp>

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <mutex>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class FolderMetadata {
 public:
  using Producer = LazyExtendedAttributes::Producer;

  // Location `location`, frozen as given, last modified now (UTC), empty extended
  // attributes, not writable until set.
  FolderMetadata(fsp::StorageIRI location, bool frozen);
  FolderMetadata(FolderMetadata const&) = delete;
  FolderMetadata& operator=(FolderMetadata const&) = delete;

  // Fluent setters; each returns this record so that calls chain.
  FolderMetadata& withLastModified(boost::posix_time::ptime time);
  FolderMetadata& withWritable(bool writable);
  // Replaces the attributes by a copy of `attributes`; an installed producer is dropped
  // unread.
  FolderMetadata& withExtendedAttributes(fsp::ExtendedAttributes attributes);
  // Installs `producer`; it runs on the next read of the attributes (with the path the
  // record has at that moment).
  FolderMetadata& withExtendedAttributes(Producer producer);

  fsp::StorageIRI getLocation() const;
  // The last segment of the location.
  std::u16string getName() const;
  boost::posix_time::ptime getLastModified() const;
  bool isWritable() const;
  // A copy of the attributes, produced first if still pending. Passes on what a producer
  // throws.
  fsp::ExtendedAttributes getExtendedAttributes() const;
  // The "WATERMARK" attribute's text, or "WATERMARK" itself when there is none. Throws
  // std::out_of_range ("Attribute for given type with name WATERMARK not found.") when
  // the attribute is not text, and passes on what a producer throws.
  std::string getWatermark() const;

  // Moves the record under `parent`, keeping its name. Pending attributes are produced
  // first, with the old path, so a producer never sees a location it was not installed
  // for. Passes on what a producer throws (the location then stays unchanged).
  void setParentLocation(fsp::StorageIRI const& parent);

  bool isFrozen() const;
  void freeze();
  void thaw();

 private:
  mutable std::mutex guard_;  // guards every field below
  fsp::StorageIRI location_;
  boost::posix_time::ptime lastModified_;
  bool writable_ = false;
  mutable LazyExtendedAttributes extended_;
  bool frozen_;
};

}  // namespace storage::overlayprovider
