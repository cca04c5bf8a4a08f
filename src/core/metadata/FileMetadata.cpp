#include <core/metadata/FileMetadata.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

namespace storage::overlayprovider {

FileMetadata::FileMetadata(fsp::StorageIRI location, bool frozen)
    : location_(std::move(location)),
      lastModified_(boost::posix_time::microsec_clock::universal_time()),
      frozen_(frozen) {}

FileMetadata& FileMetadata::withLastModified(boost::posix_time::ptime time) {
  std::lock_guard lock(guard_);
  lastModified_ = time;
  return *this;
}

FileMetadata& FileMetadata::withSize(unsigned long size) {
  std::lock_guard lock(guard_);
  size_ = size;
  return *this;
}

FileMetadata& FileMetadata::withWritable(bool writable) {
  std::lock_guard lock(guard_);
  writable_ = writable;
  return *this;
}

FileMetadata& FileMetadata::withExtendedAttributes(fsp::ExtendedAttributes attributes) {
  std::lock_guard lock(guard_);
  extended_ = LazyExtendedAttributes(std::move(attributes));
  return *this;
}

FileMetadata& FileMetadata::withExtendedAttributes(Producer producer) {
  std::lock_guard lock(guard_);
  extended_ = LazyExtendedAttributes(std::move(producer));
  return *this;
}

fsp::StorageIRI FileMetadata::getLocation() const {
  std::lock_guard lock(guard_);
  return location_;
}

std::u16string FileMetadata::getName() const {
  std::lock_guard lock(guard_);
  return location_.getName();
}

boost::posix_time::ptime FileMetadata::getLastModified() const {
  std::lock_guard lock(guard_);
  return lastModified_;
}

bool FileMetadata::isWritable() const {
  std::lock_guard lock(guard_);
  return writable_;
}

unsigned long FileMetadata::getFileSize() const {
  std::lock_guard lock(guard_);
  return size_;
}

fsp::ExtendedAttributes FileMetadata::getExtendedAttributes() const {
  std::lock_guard lock(guard_);
  return extended_.get(location_.getPath());
}

std::string FileMetadata::getWatermark() const {
  std::lock_guard lock(guard_);
  return LazyExtendedAttributes::watermarkOf(extended_.get(location_.getPath()));
}

void FileMetadata::setParentLocation(fsp::StorageIRI const& parent) {
  std::lock_guard lock(guard_);
  extended_.get(location_.getPath());
  location_ = fsp::StorageIRI(parent, location_.getName());
}

bool FileMetadata::isFrozen() const {
  std::lock_guard lock(guard_);
  return frozen_;
}

void FileMetadata::freeze() {
  std::lock_guard lock(guard_);
  frozen_ = true;
}

void FileMetadata::thaw() {
  std::lock_guard lock(guard_);
  frozen_ = false;
}

}  // namespace storage::overlayprovider
