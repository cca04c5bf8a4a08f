// FileOrFolderMetadata: a shared file or folder record, and the visitors through which
// code that handles either kind works on it.
//
//   std::u16string name = std::visit(GetNameVisitor(), record);
//   std::visit(SetParentVisitor(newParent), record);
//
// The visitors only forward to the record's own (internally locked) operations.
#pragma once

#include <core/metadata/FileMetadata.hpp>
#include <core/metadata/FolderMetadata.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <memory>
#include <string>
#include <variant>

namespace storage::overlayprovider {

// Alternative 0: a file; alternative 1: a folder. Never holds a null pointer.
using FileOrFolderMetadata = std::variant<std::shared_ptr<FileMetadata>, std::shared_ptr<FolderMetadata>>;

// The record's name, without a copy (names never change; see MetadataRecord).
std::u16string const& nameOf(FileOrFolderMetadata const& record);

// The record's name (last segment of its location).
class GetNameVisitor {
 public:
  std::u16string operator()(std::shared_ptr<FileMetadata> const& file) const;
  std::u16string operator()(std::shared_ptr<FolderMetadata> const& folder) const;
};

// The record's location.
class GetLocationVisitor {
 public:
  fsp::StorageIRI operator()(std::shared_ptr<FileMetadata> const& file) const;
  fsp::StorageIRI operator()(std::shared_ptr<FolderMetadata> const& folder) const;
};

// Moves the record under the parent given at construction (`setParentLocation`); the
// records one visitor moves share that parent's IRI.
class SetParentVisitor {
 public:
  explicit SetParentVisitor(fsp::StorageIRI parent);
  void operator()(std::shared_ptr<FileMetadata> const& file) const;
  void operator()(std::shared_ptr<FolderMetadata> const& folder) const;

 private:
  std::shared_ptr<fsp::StorageIRI const> const parent_;
};

// True for a file, false for a folder.
class IsFileEntryVisitor {
 public:
  bool operator()(std::shared_ptr<FileMetadata> const& file) const;
  bool operator()(std::shared_ptr<FolderMetadata> const& folder) const;
};

// Freezes the record.
class FreezeMetadataVisitor {
 public:
  void operator()(std::shared_ptr<FileMetadata> const& file) const;
  void operator()(std::shared_ptr<FolderMetadata> const& folder) const;
};

}  // namespace storage::overlayprovider
