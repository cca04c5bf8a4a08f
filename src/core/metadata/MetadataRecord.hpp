// MetadataRecord: what FileMetadata and FolderMetadata have in common, written once.
//
// A record has a location (kept compactly, RecordLocation), a last-modified time (UTC), a
// writable flag, extended attributes (a value, or a producer run on first use:
// LazyExtendedAttributes) and a frozen flag. `Derived` is the record type, so that the
// fluent setters return it and calls chain: withSize(1).withWritable(true).
//
// Thread-safety: every operation takes the record's own lock (a SmallMutex, four bytes:
// the cache holds records by the million) for its whole duration and takes no other lock
// while holding it, so records may be used under the cache lock or a folder entry's lock.
// An extended-attributes producer runs under the record's lock, so two concurrent readers
// never run it twice. The name never changes and is read without the lock.
#pragma once

#include <core/metadata/LazyExtendedAttributes.hpp>
#include <core/metadata/RecordLocation.hpp>
#include <core/util/SmallMutex.hpp>

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/date_time/posix_time/ptime.hpp>

#include <memory>
#include <string>
#include <utility>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

template <class Derived>
class MetadataRecord {
 public:
  using Producer = LazyExtendedAttributes::Producer;
  using SharedProducer = LazyExtendedAttributes::SharedProducer;
  using Parent = RecordLocation::Parent;

  MetadataRecord(MetadataRecord const&) = delete;
  MetadataRecord& operator=(MetadataRecord const&) = delete;

  Derived& withLastModified(boost::posix_time::ptime time) {
    SmallLock lock(guard_);
    lastModified_ = time;
    return self();
  }
  Derived& withWritable(bool writable) {
    SmallLock lock(guard_);
    writable_ = writable;
    return self();
  }
  // Replaces the attributes by a copy of `attributes`; an installed producer is dropped
  // unread.
  Derived& withExtendedAttributes(fsp::ExtendedAttributes attributes) { return withHolder(std::move(attributes)); }
  // Installs `producer`; it runs on the next read of the attributes (with the path the
  // record has at that moment).
  Derived& withExtendedAttributes(Producer producer) { return withHolder(std::move(producer)); }
  Derived& withExtendedAttributes(SharedProducer producer) { return withHolder(std::move(producer)); }

  fsp::StorageIRI getLocation() const {
    SmallLock lock(guard_);
    return location_.iri();
  }
  // The last segment of the location.
  std::u16string getName() const { return name(); }
  // The same, without a copy; valid as long as the record. The name is set at
  // construction and never changes (a move keeps it), so it needs no lock.
  std::u16string const& name() const NO_THREAD_SAFETY_ANALYSIS { return location_.name(); }
  boost::posix_time::ptime getLastModified() const {
    SmallLock lock(guard_);
    return lastModified_;
  }
  bool isWritable() const {
    SmallLock lock(guard_);
    return writable_;
  }
  // A copy of the attributes, produced first if still pending. Passes on what a producer
  // throws.
  fsp::ExtendedAttributes getExtendedAttributes() const {
    SmallLock lock(guard_);
    produce();
    return extended_.value();
  }
  // The "WATERMARK" attribute's text, or "WATERMARK" itself when there is none. Throws
  // std::out_of_range ("Attribute for given type with name WATERMARK not found.") when
  // the attribute is not text, and passes on what a producer throws.
  std::string getWatermark() const {
    SmallLock lock(guard_);
    produce();
    return extended_.watermark();
  }

  // Moves the record under `parent`, keeping its name. Pending attributes are produced
  // first, with the old path, so a producer never sees a location it was not installed
  // for. Passes on what a producer throws (the location then stays unchanged).
  void setParentLocation(fsp::StorageIRI const& parent) { setParentLocation(std::make_shared<fsp::StorageIRI const>(parent)); }
  // As above with a parent shared by the records moved together.
  void setParentLocation(Parent parent) {
    SmallLock lock(guard_);
    produce();
    location_.moveUnder(std::move(parent));
  }

  bool isFrozen() const {
    SmallLock lock(guard_);
    return frozen_;
  }
  void freeze() {
    SmallLock lock(guard_);
    frozen_ = true;
  }
  void thaw() {
    SmallLock lock(guard_);
    frozen_ = false;
  }

 protected:
  // Location `location` (or `StorageIRI(*parent, name)`), frozen as given, last modified
  // now (UTC), empty extended attributes, not writable until set.
  MetadataRecord(fsp::StorageIRI const& location, bool frozen) : location_(location), frozen_(frozen) {}
  MetadataRecord(Parent parent, std::u16string name, bool frozen)
      : location_(std::move(parent), std::move(name)), frozen_(frozen) {}
  ~MetadataRecord() = default;

  mutable SmallMutex guard_;  // guards every field below, and those of Derived

  // For Derived's reads of several fields under one hold of the lock.
  boost::posix_time::ptime lastModified() const REQUIRES(guard_) { return lastModified_; }
  bool writable() const REQUIRES(guard_) { return writable_; }

 private:
  Derived& self() { return static_cast<Derived&>(*this); }
  template <class Holder>
  Derived& withHolder(Holder&& holder) {
    LazyExtendedAttributes made(std::forward<Holder>(holder));  // packed before the lock is taken
    SmallLock lock(guard_);
    extended_ = std::move(made);
    return self();
  }
  // Runs a pending producer of the attributes.
  void produce() const REQUIRES(guard_) {
    if (extended_.isPending()) extended_.produce(location_.path());
  }

  RecordLocation location_ GUARDED_BY(guard_);
  boost::posix_time::ptime lastModified_ GUARDED_BY(guard_) = boost::posix_time::microsec_clock::universal_time();
  mutable LazyExtendedAttributes extended_ GUARDED_BY(guard_);
  bool writable_ GUARDED_BY(guard_) = false;
  bool frozen_ GUARDED_BY(guard_);
};

}  // namespace storage::overlayprovider
