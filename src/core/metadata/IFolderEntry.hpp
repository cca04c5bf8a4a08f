// IFolderEntry: the metadata cache's picture of one folder, the folder's own record and
// the records of its direct children.
//
// Children are the shared records (FolderChildren), each at `StorageIRI(folder, name)`
// (inner-most form) and kept in the order of those IRIs, so a change made through the
// entry is seen by every other holder of a record. Entries are created and dropped by
// MetadataCache; FutureFolderEntry is the kind whose content comes from a listing of the
// inner store.
//
// Building. Every operation except `withMetadata`, `peekMetadata`, `getLocation` and
// `lowerCaseHash`
// first takes the entry's lock and then calls `doBuildFolder()` under it, so that
// an entry whose content is still being produced is complete before anything is read
// or changed. For a plain IFolderEntry building does nothing.
//
// Case-insensitive lookup compares names by hash: the text of the wanted IRI and of each
// child's key is lower-cased (fl::i18n::to_lower) and hashed with
// std::hash<std::u16string>; the first child, in key order, whose hash equals the wanted
// one is the match. Two names whose lower-cased forms collide in the hash are treated
// as the same name. Exact lookups find the name in the ordered children; case-insensitive
// ones go through a hash table built at the first of them.
//
// Thread-safety: the entry's lock serialises all readers and writers of the children;
// the folder's record pointer has a lock of its own so that `withMetadata` never waits
// for a build. Lock order: the cache lock, then an entry's lock, then a record's lock.
#pragma once

#include <core/metadata/FileOrFolderMetadata.hpp>
#include <core/metadata/FolderChildren.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <cstddef>
#include <vector>
#include <memory>
#include <mutex>

namespace storage::overlayprovider {

class IFolderEntry {
 public:
  // Which kind of child a lookup accepts.
  enum class CheckType : int {
    FILE = 0,    // files only
    FOLDER = 1,  // folders only; any value other than 0 and 2 behaves as this one
    ANY = 2,     // files and folders
  };
  // The children's records in order (a snapshot).
  using Content = std::vector<FileOrFolderMetadata>;
  // Iterates the children's records in order.
  using const_iterator = FolderChildren::const_iterator;

  // An entry for `location` without a record and without children.
  explicit IFolderEntry(fsp::StorageIRI location);
  virtual ~IFolderEntry();
  IFolderEntry(IFolderEntry const&) = delete;
  IFolderEntry& operator=(IFolderEntry const&) = delete;

  // Replaces the folder's own record. Neither takes the entry's lock nor builds; a
  // record given here is kept even if a listing of the entry finishes later.
  IFolderEntry& withMetadata(std::shared_ptr<FolderMetadata> metadata);
  // The folder's own record; null until set. Passes on the failure of a listing to the
  // first caller that builds (see FutureFolderEntry).
  std::shared_ptr<FolderMetadata> getMetadata() const;
  // The folder's own record as it is now, without taking the entry's lock or building:
  // for callers that must not wait for a listing.
  std::shared_ptr<FolderMetadata> peekMetadata() const;
  fsp::StorageIRI const& getLocation() const { return *location_; }
  // The same IRI, shared: the parent of the records made for the folder's children.
  std::shared_ptr<fsp::StorageIRI const> const& sharedLocation() const { return location_; }

  // The child at `iri` when its kind fits `type`, else end(). Case-sensitive: exact key;
  // otherwise the lower-case hash rule above. The iterator stays valid only while no one
  // changes the entry.
  const_iterator getIteratorForFileOrFolderPath(fsp::StorageIRI const& iri, CheckType type, bool caseSensitive) const;
  // The child file / folder record at `iri`, or null.
  std::shared_ptr<FileMetadata> getFileMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const;
  std::shared_ptr<FolderMetadata> getFolderMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const;
  // As above for the child whose IRI renders as `text`, for callers that hold only the
  // text (an ancestor's, as a prefix of a descendant's) and need not build the IRI.
  std::shared_ptr<FileMetadata> getFileMetadata(std::u16string_view text, bool caseSensitive) const;
  std::shared_ptr<FolderMetadata> getFolderMetadata(std::u16string_view text, bool caseSensitive) const;
  // Case-sensitive presence tests.
  bool hasFileMetadata(fsp::StorageIRI const& iri) const;
  bool hasFolderMetadata(fsp::StorageIRI const& iri) const;

  // Erases the child file / folder at `iri` and stamps the folder's record with the
  // current UTC time; changes nothing when there is no such child.
  void removeFileMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const;
  void removeFolderMetadata(fsp::StorageIRI const& iri, bool caseSensitive) const;
  // With `updateLastModified`, first sets the folder's last modified to the child's;
  // then inserts the child under its location unless that exact key is present (the
  // existing child then stays and `child` is dropped; the time is updated all the same).
  void addFileMetadata(std::shared_ptr<FileMetadata> child, bool updateLastModified) const;
  void addFolderMetadata(std::shared_ptr<FolderMetadata> child, bool updateLastModified) const;

  // Iterators of the children, taken after the build. The lock is released on return:
  // the caller must not change the entry while iterating.
  const_iterator begin() const;
  const_iterator end() const;
  // A copy of the children's records, in order, for iteration outside the lock.
  Content getAllContent() const;
  std::size_t size() const;
  bool empty() const;

  // Forward to the folder's own record; false / nothing without one.
  bool isFrozen() const;
  void thaw() const;

  // The hash used by case-insensitive lookups: std::hash of the lower-cased text of
  // `iri` (built in a fixed buffer up to 1024 UTF-16 units, in one of the exact length
  // beyond). Throws fl::i18n::internal_runtime_error only if the Unicode library fails.
  static std::size_t lowerCaseHash(fsp::StorageIRI const& iri);

 protected:
  // Completes the entry's content. Called with `guard_` held by every operation above.
  virtual void doBuildFolder() const;

  // For a listing that fills the entry before anyone reads it: stores the folder's
  // record unless one was given with `withMetadata`.
  void setListedMetadata(std::shared_ptr<FolderMetadata> metadata);
  // The children, for a listing that fills the entry before anyone reads it (no lock).
  FolderChildren& childrenForListing() const { return children_; }

 private:
  // Guard held by the caller.
  const_iterator find(std::u16string_view text, CheckType type, bool caseSensitive) const;
  const_iterator find(fsp::StorageIRI const& iri, CheckType type, bool caseSensitive) const {
    return find(std::u16string_view(iri.toString()), type, caseSensitive);
  }
  void stampNow() const;
  void stampWith(boost::posix_time::ptime time) const;

  std::shared_ptr<fsp::StorageIRI const> const location_;
  mutable std::mutex metadataGuard_;         // guards metadata_ and metadataGiven_ (a leaf lock)
  std::shared_ptr<FolderMetadata> metadata_;
  bool metadataGiven_ = false;
  mutable std::mutex guard_;  // guards children_ (after the build) and serialises builds
  mutable FolderChildren children_;
};

// Adds the record to the folder entry given at construction, moving that folder's last
// modified time to the record's (`addFileMetadata(file, true)` or
// `addFolderMetadata(folder, true)`). The entry must outlive the visitor.
class AddFileOrFolderVisitor {
 public:
  explicit AddFileOrFolderVisitor(IFolderEntry const& entry);
  void operator()(std::shared_ptr<FileMetadata> const& file) const;
  void operator()(std::shared_ptr<FolderMetadata> const& folder) const;

 private:
  IFolderEntry const& entry_;
};

}  // namespace storage::overlayprovider
