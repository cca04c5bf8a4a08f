#include <core/metadata/FileOrFolderMetadata.hpp>

namespace storage::overlayprovider {

std::u16string const& nameOf(FileOrFolderMetadata const& record) {
  return record.index() == 0 ? std::get<0>(record)->name() : std::get<1>(record)->name();
}

std::u16string GetNameVisitor::operator()(std::shared_ptr<FileMetadata> const& file) const { return file->getName(); }
std::u16string GetNameVisitor::operator()(std::shared_ptr<FolderMetadata> const& folder) const {
  return folder->getName();
}

fsp::StorageIRI GetLocationVisitor::operator()(std::shared_ptr<FileMetadata> const& file) const {
  return file->getLocation();
}
fsp::StorageIRI GetLocationVisitor::operator()(std::shared_ptr<FolderMetadata> const& folder) const {
  return folder->getLocation();
}

SetParentVisitor::SetParentVisitor(fsp::StorageIRI parent)
    : parent_(std::make_shared<fsp::StorageIRI const>(std::move(parent))) {}
void SetParentVisitor::operator()(std::shared_ptr<FileMetadata> const& file) const { file->setParentLocation(parent_); }
void SetParentVisitor::operator()(std::shared_ptr<FolderMetadata> const& folder) const {
  folder->setParentLocation(parent_);
}

bool IsFileEntryVisitor::operator()(std::shared_ptr<FileMetadata> const&) const { return true; }
bool IsFileEntryVisitor::operator()(std::shared_ptr<FolderMetadata> const&) const { return false; }

void FreezeMetadataVisitor::operator()(std::shared_ptr<FileMetadata> const& file) const { file->freeze(); }
void FreezeMetadataVisitor::operator()(std::shared_ptr<FolderMetadata> const& folder) const { folder->freeze(); }

}  // namespace storage::overlayprovider
