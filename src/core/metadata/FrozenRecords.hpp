// FrozenRecords: the frozen snapshot of the metadata cache. Records of the overlay's own
// changes (frozen records) are saved here before a queued invalidation drops their
// folders, or while their folder is being listed anew, and put back into the folders
// listed afresh at the next re-add; the snapshot also says whether a re-add is due.
// Keys are the cache's keys. Not thread-safe: the cache lock guards it.
#pragma once

#include <core/metadata/FileMetadata.hpp>
#include <core/metadata/FileOrFolderMetadata.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <map>
#include <memory>
#include <vector>

namespace storage::overlayprovider {

class FrozenRecords {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;
  using Snapshot = std::map<StorageIRI, FileOrFolderMetadata>;

  // Saves `record` under `key` unless a record is saved there already.
  void save(StorageIRI const& key, FileOrFolderMetadata record);
  // Saves `record` under `key`, over a record saved there, and makes a re-add due.
  void saveOver(StorageIRI const& key, std::shared_ptr<FileMetadata> const& record);

  // Makes a re-add due.
  void setReAddDue() { reAddDue_ = true; }
  bool isReAddDue() const { return reAddDue_; }
  // Whether a re-add is due; afterwards it is not.
  bool takeReAddDue();

  // The saved records, in key order.
  Snapshot const& records() const { return records_; }
  // Their keys, in order.
  std::vector<StorageIRI> keys() const;

  // Forgets the record saved under `key` and, with `recursive`, every record saved
  // below it, whether or not `key` itself has one.
  void forget(StorageIRI const& key, bool recursive);
  // Forgets every saved record (whether a re-add is due stays as it is).
  void clear() { records_.clear(); }

 private:
  Snapshot records_;
  bool reAddDue_ = false;
};

}  // namespace storage::overlayprovider
