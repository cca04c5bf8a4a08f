#include <core/metadata/FrozenRecords.hpp>

#include <utility>

namespace storage::overlayprovider {

void FrozenRecords::save(StorageIRI const& key, FileOrFolderMetadata record) {
  records_.emplace(key, std::move(record));
}

void FrozenRecords::saveOver(StorageIRI const& key, std::shared_ptr<FileMetadata> const& record) {
  records_.insert_or_assign(key, record);
  reAddDue_ = true;
}

bool FrozenRecords::takeReAddDue() {
  bool const due = reAddDue_;
  reAddDue_ = false;
  return due;
}

std::vector<FrozenRecords::StorageIRI> FrozenRecords::keys() const {
  std::vector<StorageIRI> keys;
  for (auto const& [key, record] : records_) keys.push_back(key);
  return keys;
}

void FrozenRecords::forget(StorageIRI const& key, bool recursive) {
  records_.erase(key);
  if (!recursive) return;
  // Records saved below a folder go with it, whether or not the folder's own was saved.
  for (auto saved = records_.begin(); saved != records_.end();) {
    if (key.isAncestorOf(saved->first)) {
      saved = records_.erase(saved);
    } else {
      ++saved;
    }
  }
}

}  // namespace storage::overlayprovider
