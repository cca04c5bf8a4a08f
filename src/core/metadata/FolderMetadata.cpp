#include <core/metadata/FolderMetadata.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace storage::overlayprovider {

FolderMetadata::FolderMetadata(fsp::StorageIRI location, bool frozen)
    : location_(std::move(location)),
      lastModified_(boost::posix_time::microsec_clock::universal_time()),
      frozen_(frozen) {}

FolderMetadata& FolderMetadata::withLastModified(boost::posix_time::ptime time) {
  std::lock_guard lock(guard_);
  lastModified_ = time;
  return *this;
}

FolderMetadata& FolderMetadata::withWritable(bool writable) {
  std::lock_guard lock(guard_);
  writable_ = writable;
  return *this;
}

FolderMetadata& FolderMetadata::withExtendedAttributes(fsp::ExtendedAttributes attributes) {
  std::lock_guard lock(guard_);
  extended_ = LazyExtendedAttributes(std::move(attributes));
  return *this;
}

FolderMetadata& FolderMetadata::withExtendedAttributes(Producer producer) {
  std::lock_guard lock(guard_);
  extended_ = LazyExtendedAttributes(std::move(producer));
  return *this;
}

fsp::StorageIRI FolderMetadata::getLocation() const {
  std::lock_guard lock(guard_);
  return location_;
}

std::u16string FolderMetadata::getName() const {
  std::lock_guard lock(guard_);
  return location_.getName();
}

boost::posix_time::ptime FolderMetadata::getLastModified() const {
  std::lock_guard lock(guard_);
  return lastModified_;
}

bool FolderMetadata::isWritable() const {
  std::lock_guard lock(guard_);
  return writable_;
}

fsp::ExtendedAttributes FolderMetadata::getExtendedAttributes() const {
  std::lock_guard lock(guard_);
  return extended_.get(location_.getPath());
}

std::string FolderMetadata::getWatermark() const {
  std::lock_guard lock(guard_);
  return LazyExtendedAttributes::watermarkOf(extended_.get(location_.getPath()));
}

void FolderMetadata::setParentLocation(fsp::StorageIRI const& parent) {
  std::lock_guard lock(guard_);
  extended_.get(location_.getPath());
  location_ = fsp::StorageIRI(parent, location_.getName());
}

bool FolderMetadata::isFrozen() const {
  std::lock_guard lock(guard_);
  return frozen_;
}

void FolderMetadata::freeze() {
  std::lock_guard lock(guard_);
  frozen_ = true;
}

void FolderMetadata::thaw() {
  std::lock_guard lock(guard_);
  frozen_ = false;
}

}  // namespace storage::overlayprovider
