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
  return findName(name);
}

namespace {

std::size_t nameHash(std::u16string_view name) { return std::hash<std::u16string_view>{}(name); }

}  // namespace

void FolderChildren::buildExact() const {
  std::size_t capacity = 8;
  while (capacity * 3 < set_.size() * 4 + 4) capacity *= 2;
  exact_.assign(capacity, set_.end());
  for (auto it = set_.begin(); it != set_.end(); ++it) placeExact(it);
}

void FolderChildren::placeExact(const_iterator it) const {
  std::size_t const mask = exact_.size() - 1;
  std::size_t i = nameHash(nameOf(*it)) & mask;
  while (exact_[i] != set_.end()) i = (i + 1) & mask;
  exact_[i] = it;
}

FolderChildren::const_iterator FolderChildren::findName(std::u16string_view name) const {
  if (exact_.empty()) {
    if (set_.empty()) return set_.end();
    buildExact();
  }
  std::size_t const mask = exact_.size() - 1;
  for (std::size_t i = nameHash(name) & mask; exact_[i] != set_.end(); i = (i + 1) & mask) {
    if (std::u16string_view(nameOf(*exact_[i])) == name) return exact_[i];
  }
  return set_.end();
}

void FolderChildren::eraseExact(const_iterator it) noexcept {
  std::size_t const mask = exact_.size() - 1;
  std::size_t hole = nameHash(nameOf(*it)) & mask;
  while (exact_[hole] != it) hole = (hole + 1) & mask;
  // Backward shift: a later slot moves into the hole unless its home lies cyclically in
  // (hole, next].
  for (std::size_t next = (hole + 1) & mask; exact_[next] != set_.end(); next = (next + 1) & mask) {
    std::size_t const home = nameHash(nameOf(*exact_[next])) & mask;
    bool const stays = hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
    if (!stays) {
      exact_[hole] = exact_[next];
      hole = next;
    }
  }
  exact_[hole] = set_.end();
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
  if (inserted && !exact_.empty()) {
    if (set_.size() * 4 > exact_.size() * 3) {
      try {
        buildExact();  // grown past three quarters: a table twice the size
      } catch (...) {
        exact_.clear();  // built again at the next lookup
      }
    } else {
      placeExact(it);
    }
  }
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
  if (!exact_.empty()) eraseExact(it);
  set_.erase(it);
}

void FolderChildren::dropFolded() noexcept {
  folded_.clear();
  foldedBuilt_ = false;
}

}  // namespace storage::overlayprovider
