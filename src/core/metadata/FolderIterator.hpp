// FolderIterator: a listing of the overlay, over a snapshot of one cached folder.
//
// The set of records is fixed when the listing is made (a copy of the folder entry's
// children, in the entry's order); each record's values are read when the iterator
// reaches it, so a record changed meanwhile is reported as it is then. `Pred` chooses
// which records are listed: ListAllPred, ListFilesPred or ListFoldersPred.
//
// Thread-safety: one iterator is used by one thread at a time; records lock themselves.
#pragma once

#include <core/metadata/FileMetadata.hpp>
#include <core/metadata/FileOrFolderMetadata.hpp>
#include <core/metadata/FolderMetadata.hpp>

#include <foundation/storage/provider/IFolderEntryIterator.hpp>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <variant>
#include <vector>

namespace storage::overlayprovider {

struct ListAllPred {
  bool operator()(FileOrFolderMetadata const&) const { return true; }
};
struct ListFilesPred {
  bool operator()(FileOrFolderMetadata const& record) const { return std::visit(IsFileEntryVisitor(), record); }
};
struct ListFoldersPred {
  bool operator()(FileOrFolderMetadata const& record) const { return !std::visit(IsFileEntryVisitor(), record); }
};

template <class Pred>
class FolderIterator : public fsp::IClonableFolderEntryIterator<FolderIterator<Pred>> {
 public:
  // Keeps the records of `content` (in its order) that `Pred` accepts.
  explicit FolderIterator(std::vector<FileOrFolderMetadata> content) : records_(std::move(content)) {
    Pred const accepts;
    records_.erase(std::remove_if(records_.begin(), records_.end(), [&](auto const& record) { return !accepts(record); }),
                   records_.end());
  }

  fsp::FolderEntry current() const override {
    if (!current_) throw std::logic_error("FolderIterator: current() before advance()");
    return *current_;
  }
  bool notAtEnd() const override { return position_ < records_.size(); }
  void advance() override {
    if (!notAtEnd()) throw std::out_of_range("FolderIterator: advance() at the end");
    current_ = entryOf(records_[position_]);
    ++position_;
  }

 private:
  static fsp::FolderEntry entryOf(FileOrFolderMetadata const& record) {
    if (record.index() == 0) {
      auto const& file = std::get<0>(record);
      return fsp::FolderEntry(file->name(), file->getAttributes());
    }
    auto const& folder = std::get<1>(record);
    return fsp::FolderEntry(folder->name(), folder->getAttributes());
  }

  std::vector<FileOrFolderMetadata> records_;
  std::size_t position_ = 0;
  std::optional<fsp::FolderEntry> current_;
};

}  // namespace storage::overlayprovider
