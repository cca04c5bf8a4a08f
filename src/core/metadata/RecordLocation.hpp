// RecordLocation: where a metadata record is, kept compactly.
//
// A record listed in a folder is at `StorageIRI(folder, name)`. Rather than that IRI, the
// location keeps a shared pointer to the folder's IRI (one object for every record of the
// folder) and the name, and builds the IRI when asked. A location that is not the join of
// a parent and a plain name (the root, a name with a "/" or a control character, an IRI
// whose parent does not join back to it) is kept whole. Either way `iri()` is exactly the
// IRI the record was made with or moved to.
//
// Not thread-safe on its own: the record's lock guards it.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <memory>
#include <string>

namespace storage::overlayprovider {

class RecordLocation {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;
  using Parent = std::shared_ptr<StorageIRI const>;

  // The location `location`.
  explicit RecordLocation(StorageIRI const& location);
  // The location `StorageIRI(*parent, name)`. Throws what that IRI's construction throws.
  RecordLocation(Parent parent, std::u16string name);

  // The location as an IRI (built, unless kept whole).
  StorageIRI iri() const;
  // Its last segment (`iri().getName()`); never changes, not even by moveUnder.
  std::u16string const& name() const { return name_; }
  // `iri().getPath()`.
  std::u16string path() const;
  // The location becomes `StorageIRI(*parent, name())`.
  void moveUnder(Parent parent);

 private:
  void keepWhole(StorageIRI location);

  Parent parent_;                           // null when whole_ is set
  std::unique_ptr<StorageIRI const> whole_;  // the location, when it is not parent plus name
  std::u16string name_;
};

}  // namespace storage::overlayprovider
