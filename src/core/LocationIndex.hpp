// LocationIndex: hash indexes over a std::map keyed by StorageIRI, so that finding a key
// by its exact text, or by the lower-case hash rule of case-insensitive matching, costs
// the same however many keys the map holds.
//
// The lower-case hash rule: the text of an IRI is lower-cased (full Unicode lower-casing,
// fl::i18n::to_lower) and hashed with std::hash; a case-insensitive lookup matches the
// first key, in the map's key order, whose hash equals the wanted one. Two names whose
// lower-cased forms collide in the hash are treated as the same name. `findFolded` gives
// exactly that key, as a walk over the whole map would, from a table of hash -> the keys
// with that hash in key order.
//
// The index refers to the map's elements by iterator (std::map iterators stay valid
// until their element is erased), so the owner tells it of every insertion and erasure.
// Each of the two tables is built from the whole map at its first use and kept in step
// from then on; until then insertions and erasures cost nothing, so a map that is only
// ever searched one way never pays for the other table.
//
// Thread-safety: none of its own. The owner's lock guards the index together with the
// map, and every call below, `find...` included, changes the index.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <algorithm>
#include <cstddef>
#include <map>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace storage::overlayprovider {

// The hash used by case-insensitive matching: std::hash of the lower-cased text of
// `iri` (fl::i18n::to_lower; text of ASCII characters only is lower-cased without the
// Unicode library, with the same result). Throws fl::i18n::internal_runtime_error only
// if the Unicode library fails.
std::size_t lowerCaseHashOf(std::u16string_view text);
inline std::size_t lowerCaseHashOf(foundation::storage::provider::StorageIRI const& iri) {
  return lowerCaseHashOf(std::u16string_view(iri.toString()));
}

template <class Map>
class LocationIndex {
 public:
  using iterator = typename Map::iterator;

  // An index over `map`, which must outlive it.
  explicit LocationIndex(Map& map) : map_(map) {}
  LocationIndex(LocationIndex const&) = delete;
  LocationIndex& operator=(LocationIndex const&) = delete;

  // The element whose key has exactly the text of `key`, or the map's end.
  iterator findExact(foundation::storage::provider::StorageIRI const& key) { return findExact(key.toString()); }
  // The element whose key's text is `text`, or the map's end.
  iterator findExact(std::u16string_view text) {
    if (!exact_) {
      exact_.emplace();
      exact_->reserve(map_.size());
      for (auto it = map_.begin(); it != map_.end(); ++it) exact_->emplace(textOf(it), it);
    }
    auto found = exact_->find(text);
    return found == exact_->end() ? map_.end() : found->second;
  }

  // The first element in key order whose key has the lower-case hash of `key`, or the
  // map's end. Passes on a failure of the Unicode library.
  iterator findFolded(foundation::storage::provider::StorageIRI const& key) { return findFolded(key.toString()); }
  // As above for the key whose text is `text`.
  iterator findFolded(std::u16string_view text) {
    std::size_t const wanted = lowerCaseHashOf(text);
    if (!folded_) {
      Folded table;
      table.reserve(map_.size());
      // In key order, so that each list is in key order as it grows.
      for (auto it = map_.begin(); it != map_.end(); ++it) table[lowerCaseHashOf(it->first)].push_back(it);
      folded_ = std::move(table);
    }
    auto found = folded_->find(wanted);
    return found == folded_->end() ? map_.end() : found->second.front();
  }

  // `it` was just inserted into the map. Never throws: a table that cannot be kept in
  // step is dropped and built again at its next use.
  void inserted(iterator it) noexcept {
    try {
      if (exact_) exact_->emplace(textOf(it), it);
    } catch (...) {
      exact_.reset();
    }
    try {
      if (folded_) {
        auto& same = (*folded_)[lowerCaseHashOf(it->first)];
        auto const before = [](iterator const& a, iterator const& b) { return a->first < b->first; };
        same.insert(std::lower_bound(same.begin(), same.end(), it, before), it);
      }
    } catch (...) {
      folded_.reset();
    }
  }

  // `it` is about to be erased from the map. Never throws, as `inserted`.
  void erasing(iterator it) noexcept {
    if (exact_) exact_->erase(textOf(it));
    try {
      if (folded_) {
        auto found = folded_->find(lowerCaseHashOf(it->first));
        if (found == folded_->end()) return;
        auto& same = found->second;
        same.erase(std::remove(same.begin(), same.end(), it), same.end());
        if (same.empty()) folded_->erase(found);
      }
    } catch (...) {
      folded_.reset();
    }
  }

  // The map was emptied (or replaced as a whole).
  void cleared() {
    exact_.reset();
    folded_.reset();
  }

 private:
  using Folded = std::unordered_map<std::size_t, std::vector<iterator>>;

  // A view of the key's own text, which lives in the map's node as long as the element.
  static std::u16string_view textOf(iterator it) { return it->first.toString(); }

  Map& map_;
  std::optional<std::unordered_map<std::u16string_view, iterator>> exact_;  // key text -> element
  std::optional<Folded> folded_;  // lower-case hash -> elements with it, in key order
};

}  // namespace storage::overlayprovider
