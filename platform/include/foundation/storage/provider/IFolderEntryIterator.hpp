// Iterators over listings.
//
// Protocol: while (it->notAtEnd()) { it->advance(); use(it->current()); }
// `advance` loads the entry at the position and moves past it; `current` returns the
// entry loaded by the last `advance`.
#pragma once

#include <foundation/storage/provider/FolderEntry.hpp>

#include <memory>
#include <optional>
#include <vector>

namespace foundation::storage::provider {

class IFolderEntryIterator {
 public:
  virtual ~IFolderEntryIterator() = default;
  // Throws std::logic_error before the first advance().
  virtual FolderEntry current() const = 0;
  virtual bool notAtEnd() const = 0;
  // Throws std::out_of_range at the end.
  virtual void advance() = 0;
};

using FolderEntryIteratorPtr = std::unique_ptr<IFolderEntryIterator>;

// An iterator that can copy itself with its whole state. `Derived` must be copyable.
template <class Derived>
class IClonableFolderEntryIterator : public IFolderEntryIterator {
 public:
  virtual std::unique_ptr<Derived> clone() const { return std::make_unique<Derived>(static_cast<Derived const&>(*this)); }
};

// An iterator over entries held in a vector; what stores and the framework defaults
// hand out.
class VectorFolderEntryIterator : public IClonableFolderEntryIterator<VectorFolderEntryIterator> {
 public:
  explicit VectorFolderEntryIterator(std::vector<FolderEntry> entries) : entries_(std::move(entries)) {}
  FolderEntry current() const override;
  bool notAtEnd() const override { return pos_ < entries_.size(); }
  void advance() override;

 private:
  std::vector<FolderEntry> entries_;
  std::size_t pos_ = 0;
  std::optional<FolderEntry> current_;
};

// An iterator whose entries are found one at a time as they are asked for (a listing read
// folder by folder, a filter over another listing): `findNext` returns the next entry, or
// nothing at the end. Finding may throw; the error then reaches the caller of notAtEnd or
// advance.
class LookAheadFolderEntryIterator : public IFolderEntryIterator {
 public:
  FolderEntry current() const override;
  bool notAtEnd() const override;
  void advance() override;

 protected:
  virtual std::optional<FolderEntry> findNext() = 0;

 private:
  void lookAhead() const;

  mutable std::optional<FolderEntry> next_;  // the entry after current_, once found
  mutable bool atEnd_ = false;
  std::optional<FolderEntry> current_;
};

// Drains an iterator into a vector.
std::vector<FolderEntry> collect(IFolderEntryIterator& iterator);

}  // namespace foundation::storage::provider
