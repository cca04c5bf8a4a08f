// FileMetadata: what the metadata cache knows about one file of the inner store.
//
// One record object is shared (std::shared_ptr) by the folder entry that lists the file,
// the frozen snapshot and any caller that asked for it; a change made through one holder
// is seen by all. The location is the inner-most IRI of the file. Everything but the size
// is common to files and folders (MetadataRecord, which also says how records lock).
#pragma once

#include <core/metadata/MetadataRecord.hpp>

#include <foundation/storage/provider/FolderEntry.hpp>

namespace storage::overlayprovider {

class FileMetadata : public MetadataRecord<FileMetadata> {
 public:
  // Location `location`, frozen as given, last modified now (UTC), empty extended
  // attributes, size 0 and not writable until set.
  FileMetadata(fsp::StorageIRI const& location, bool frozen) : MetadataRecord(location, frozen) {}
  // The same at `StorageIRI(*parent, name)`, the parent shared with other records.
  FileMetadata(Parent parent, std::u16string name, bool frozen)
      : MetadataRecord(std::move(parent), std::move(name), frozen) {}

  FileMetadata& withSize(unsigned long size) {
    SmallLock lock(guard_);
    size_ = size;
    return *this;
  }
  unsigned long getFileSize() const {
    SmallLock lock(guard_);
    return size_;
  }
  // Size, last modified and writable, read together.
  fsp::FileAttributes getAttributes() const {
    SmallLock lock(guard_);
    return fsp::FileAttributes(size_, lastModified(), writable());
  }

 private:
  unsigned long size_ GUARDED_BY(guard_) = 0;
};

}  // namespace storage::overlayprovider
