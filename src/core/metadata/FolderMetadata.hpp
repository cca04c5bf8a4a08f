// FolderMetadata: what the metadata cache knows about one folder of the inner store.
//
// One record object is shared (std::shared_ptr) by the folder's own entry, the entry of
// its parent that lists it, the frozen snapshot and any caller that asked for it; a
// change made through one holder is seen by all. The location is the inner-most IRI of
// the folder. Its fields and locking are those every record has (MetadataRecord).
#pragma once

#include <core/metadata/MetadataRecord.hpp>

#include <foundation/storage/provider/FolderEntry.hpp>

namespace storage::overlayprovider {

class FolderMetadata : public MetadataRecord<FolderMetadata> {
 public:
  // Location `location`, frozen as given, last modified now (UTC), empty extended
  // attributes, not writable until set.
  FolderMetadata(fsp::StorageIRI const& location, bool frozen) : MetadataRecord(location, frozen) {}
  // The same at `StorageIRI(*parent, name)`, the parent shared with other records.
  FolderMetadata(Parent parent, std::u16string name, bool frozen)
      : MetadataRecord(std::move(parent), std::move(name), frozen) {}

  // Last modified and writable, read together.
  fsp::FolderAttributes getAttributes() const {
    SmallLock lock(guard_);
    return fsp::FolderAttributes(lastModified(), writable());
  }
};

}  // namespace storage::overlayprovider
