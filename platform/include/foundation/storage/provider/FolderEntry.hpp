// FolderEntry: one child in a listing, a file or a folder with its attributes.
#pragma once

#include <foundation/storage/provider/ExtendedAttributes.hpp>
#include <foundation/storage/provider/FileAttributes.hpp>
#include <foundation/storage/provider/FolderAttributes.hpp>

#include <optional>
#include <string>
#include <variant>

namespace foundation::storage::provider {

class FolderEntry {
 public:
  FolderEntry(std::u16string name, FileAttributes attributes) : name_(std::move(name)), attributes_(attributes) {}
  FolderEntry(std::u16string name, FolderAttributes attributes) : name_(std::move(name)), attributes_(attributes) {}

  // The child's name; in recursive listings the path relative to the listed folder
  // ("docs/a.txt").
  std::u16string const& getName() const { return name_; }
  bool isFile() const { return std::holds_alternative<FileAttributes>(attributes_); }
  // Throws std::logic_error when the entry is a folder.
  FileAttributes const& getFileAttributes() const;
  // Throws std::logic_error when the entry is a file.
  FolderAttributes const& getFolderAttributes() const;

  // Extended attributes when the provider delivered them with the listing.
  std::optional<ExtendedAttributes> const& getExtendedAttributes() const { return extended_; }
  FolderEntry& withExtendedAttributes(ExtendedAttributes attributes) {
    extended_ = std::move(attributes);
    return *this;
  }
  FolderEntry withName(std::u16string name) const {
    FolderEntry copy = *this;
    copy.name_ = std::move(name);
    return copy;
  }

 private:
  std::u16string name_;
  std::variant<FileAttributes, FolderAttributes> attributes_;
  std::optional<ExtendedAttributes> extended_;
};

}  // namespace foundation::storage::provider
