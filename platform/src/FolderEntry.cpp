#include <foundation/storage/provider/FolderEntry.hpp>
#include <foundation/storage/provider/IFolderEntryIterator.hpp>

#include <stdexcept>

namespace foundation::storage::provider {

FileAttributes const& FolderEntry::getFileAttributes() const {
  if (!isFile()) throw std::logic_error("Folder entry is a folder, not a file");
  return std::get<FileAttributes>(attributes_);
}

FolderAttributes const& FolderEntry::getFolderAttributes() const {
  if (isFile()) throw std::logic_error("Folder entry is a file, not a folder");
  return std::get<FolderAttributes>(attributes_);
}

FolderEntry VectorFolderEntryIterator::current() const {
  if (!current_) throw std::logic_error("Folder entry iterator has no current entry");
  return *current_;
}

void VectorFolderEntryIterator::advance() {
  if (pos_ >= entries_.size()) throw std::out_of_range("Folder entry iterator is at its end");
  current_ = entries_[pos_++];
}

FolderEntry LookAheadFolderEntryIterator::current() const {
  if (!current_) throw std::logic_error("Folder entry iterator has no current entry");
  return *current_;
}

bool LookAheadFolderEntryIterator::notAtEnd() const {
  lookAhead();
  return next_.has_value();
}

void LookAheadFolderEntryIterator::advance() {
  lookAhead();
  if (!next_) throw std::out_of_range("Folder entry iterator is at its end");
  current_ = std::move(next_);
  next_.reset();
}

void LookAheadFolderEntryIterator::lookAhead() const {
  if (next_ || atEnd_) return;
  // Finding moves the iterator's own position on; looking ahead does not change what it
  // hands out, so it is allowed from the const notAtEnd.
  next_ = const_cast<LookAheadFolderEntryIterator*>(this)->findNext();
  atEnd_ = !next_;
}

std::vector<FolderEntry> collect(IFolderEntryIterator& iterator) {
  std::vector<FolderEntry> entries;
  while (iterator.notAtEnd()) {
    iterator.advance();
    entries.push_back(iterator.current());
  }
  return entries;
}

}  // namespace foundation::storage::provider
