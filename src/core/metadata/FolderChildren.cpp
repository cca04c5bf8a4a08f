#include <core/metadata/FolderChildren.hpp>

#include <core/util/LocationIndex.hpp>

#include <algorithm>

namespace storage::overlayprovider {

FolderChildren::FolderChildren(fsp::StorageIRI const& folder) : prefix_(folder.toString()) {
  if (prefix_.empty() || prefix_.back() != u'/') prefix_ += u'/';
}

FolderChildren::const_iterator FolderChildren::findExact(std::u16string_view text) const {
  if (text.size() <= prefix_.size() || text.compare(0, prefix_.size(), prefix_) != 0) return set_.end();
  auto const name = text.substr(prefix_.size());
  if (name.find(u'/') != std::u16string_view::npos) return set_.end();
  return set_.find(name);
}

std::u16string FolderChildren::textOf(std::u16string_view name) const {
  std::u16string text = prefix_;
  text += name;
  return text;
}

std::size_t FolderChildren::foldedHashOf(const_iterator it) const { return lowerCaseHashOf(textOf(nameOf(*it))); }

FolderChildren::const_iterator FolderChildren::findFolded(std::u16string_view text) {
  std::size_t const wanted = lowerCaseHashOf(text);
  if (!foldedBuilt_) {
    std::unordered_map<std::size_t, std::vector<const_iterator>> table;
    for (auto it = set_.begin(); it != set_.end(); ++it) table[foldedHashOf(it)].push_back(it);  // in name order
    folded_ = std::move(table);
    foldedBuilt_ = true;
  }
  auto found = folded_.find(wanted);
  return found == folded_.end() ? set_.end() : found->second.front();
}

bool FolderChildren::insert(FileOrFolderMetadata record) {
  auto const [it, inserted] = set_.insert(std::move(record));
  if (inserted && foldedBuilt_) {
    try {
      auto& same = folded_[foldedHashOf(it)];
      auto const name = std::u16string_view(nameOf(*it));
      auto at = std::lower_bound(same.begin(), same.end(), name,
                                 [](const_iterator a, std::u16string_view b) { return std::u16string_view(nameOf(*a)) < b; });
      same.insert(at, it);
    } catch (...) {
      dropFolded();  // built again at its next use
    }
  }
  return inserted;
}

void FolderChildren::replace(FileOrFolderMetadata record) {
  auto it = set_.find(std::u16string_view(nameOf(record)));
  if (it != set_.end()) erase(it);
  insert(std::move(record));
}

void FolderChildren::erase(const_iterator it) {
  if (foldedBuilt_) {
    try {
      auto found = folded_.find(foldedHashOf(it));
      if (found != folded_.end()) {
        auto& same = found->second;
        same.erase(std::remove(same.begin(), same.end(), it), same.end());
        if (same.empty()) folded_.erase(found);
      }
    } catch (...) {
      dropFolded();
    }
  }
  set_.erase(it);
}

void FolderChildren::dropFolded() noexcept {
  folded_.clear();
  foldedBuilt_ = false;
}

}  // namespace storage::overlayprovider
