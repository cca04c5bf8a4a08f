// FolderChildren: the records of one folder's direct children, in the order of their
// IRIs, found by the child's IRI exactly or by the lower-case hash rule.
//
// A child's IRI is the folder's IRI joined with the child's name, so the children of one
// folder are in IRI order exactly when they are in name order, and each name is stored
// once, in its record. The container is a std::set of the records ordered by name: an
// insertion or an erasure costs a logarithm of the folder's size, and an iterator stays
// valid until its child is erased. Exact lookups go through a table of the set's
// iterators by the name's hash (open addressing, linear probing, at most three quarters
// full, eight bytes a slot), built at the first lookup and kept in step from then on, so
// a lookup in a folder of any size touches a slot or two and the record; a folder only
// listed (or filled by a population) never pays for it.
//
// The lower-case hash rule: the child's IRI text is lower-cased (LocationIndex's
// lowerCaseHashOf) and hashed; a case-insensitive lookup matches the first child, in
// name order, whose hash equals the wanted one. Its table is built at the first such
// lookup (case-insensitive stores only) and kept in step from then on.
//
// Not thread-safe: the folder entry's lock guards it, lookups included.
#pragma once

#include <core/metadata/FileOrFolderMetadata.hpp>

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

class FolderChildren {
 public:
  struct ByName {
    using is_transparent = void;
    bool operator()(FileOrFolderMetadata const& a, FileOrFolderMetadata const& b) const { return nameOf(a) < nameOf(b); }
    bool operator()(FileOrFolderMetadata const& a, std::u16string_view b) const { return std::u16string_view(nameOf(a)) < b; }
    bool operator()(std::u16string_view a, FileOrFolderMetadata const& b) const { return a < std::u16string_view(nameOf(b)); }
  };
  using Set = std::set<FileOrFolderMetadata, ByName>;
  using const_iterator = Set::const_iterator;

  // The children of the folder at `folder`.
  explicit FolderChildren(fsp::StorageIRI const& folder);
  FolderChildren(FolderChildren const&) = delete;
  FolderChildren& operator=(FolderChildren const&) = delete;

  const_iterator begin() const { return set_.begin(); }
  const_iterator end() const { return set_.end(); }
  std::size_t size() const { return set_.size(); }
  bool empty() const { return set_.empty(); }

  // The child whose IRI has exactly the text `text`, or end().
  const_iterator findExact(std::u16string_view text) const;
  // The child named `name`, or end().
  const_iterator findName(std::u16string_view name) const;
  // The first child in order whose IRI text has the lower-case hash of `text`, or end().
  // Passes on a failure of the Unicode library.
  const_iterator findFolded(std::u16string_view text);

  // Adds `record` unless a child of the same name is there (then that one stays); true
  // when added.
  bool insert(FileOrFolderMetadata record);
  // Puts `record` in the place of the child of the same name, or adds it.
  void replace(FileOrFolderMetadata record);
  void erase(const_iterator it);

  // The IRI text the child with this name has.
  std::u16string textOf(std::u16string_view name) const;

 private:
  std::size_t foldedHashOf(const_iterator it) const;
  void dropFolded() noexcept;
  // The exact-lookup table: slots hold iterators into set_, end() marking a free slot.
  void buildExact() const;
  void placeExact(const_iterator it) const;
  void eraseExact(const_iterator it) noexcept;

  std::u16string prefix_;  // the folder's IRI text, ending in "/"
  Set set_;
  mutable std::vector<const_iterator> exact_;  // empty until the first exact lookup
  // Lower-case hash -> the children with it, in name order; once foldedBuilt_.
  std::unordered_map<std::size_t, std::vector<const_iterator>> folded_;
  bool foldedBuilt_ = false;
};

}  // namespace storage::overlayprovider
