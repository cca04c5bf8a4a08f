// LocationIndex: hash indexes over a std::map keyed by StorageIRI, so that finding a key
// by its exact text, or by the lower-case hash rule of case-insensitive matching, costs
// the same however many keys the map holds.
//
// The lower-case hash rule: the text of an IRI is lower-cased (full Unicode lower-casing,
// fl::i18n::to_lower) and hashed with std::hash; a case-insensitive lookup matches the
// first key, in the map's key order, whose hash equals the wanted one. Two names whose
// lower-cased forms collide in the hash are treated as the same name. `findFolded` gives
// exactly that key, as a walk over the whole map would.
//
// The index refers to the map's elements by iterator (std::map iterators stay valid
// until their element is erased), so the owner tells it of every insertion and erasure.
// Each of the two tables is built from the whole map at its first use and kept in step
// from then on; until then insertions and erasures cost nothing, so a map that is only
// ever searched one way never pays for the other table.
//
// Layout. Both tables are open-addressing arrays (linear probing) of small slots that
// carry the hash and a pointer to the key's own text (doc/performance.md says why). The
// lower-case table keeps, per hash, the first key in key order in its slot and any
// further keys with the same hash (rare: different spellings of one name, or a
// collision) in a side list.
//
// Thread-safety: none of its own. The owner's lock guards the index together with the
// map, and every call below, `find...` included, changes the index.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>
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
    if (!exactBuilt_) {
      exact_.reserveFor(map_.size());
      for (auto it = map_.begin(); it != map_.end(); ++it) exact_.insert(exactHash(textOf(it)), it);
      exactBuilt_ = true;
    }
    std::size_t const hash = exactHash(text);
    auto const* slot = exact_.find(hash, [&](Slot const& s) { return viewOf(s) == text; });
    return slot ? slot->it : map_.end();
  }

  // The first element in key order whose key has the lower-case hash of `key`, or the
  // map's end. Passes on a failure of the Unicode library.
  iterator findFolded(foundation::storage::provider::StorageIRI const& key) { return findFolded(key.toString()); }
  // As above for the key whose text is `text`.
  iterator findFolded(std::u16string_view text) {
    std::size_t const wanted = lowerCaseHashOf(text);
    if (!foldedBuilt_) {
      Slots table;
      std::unordered_map<std::size_t, std::vector<iterator>> more;
      table.reserveFor(map_.size());
      // In key order, so that the first key of each hash is met first.
      for (auto it = map_.begin(); it != map_.end(); ++it) {
        std::size_t const hash = lowerCaseHashOf(it->first);
        if (table.find(hash, anyKey) != nullptr) {
          more[hash].push_back(it);
        } else {
          table.insert(hash, it);
        }
      }
      folded_ = std::move(table);
      more_ = std::move(more);
      foldedBuilt_ = true;
    }
    auto const* slot = folded_.find(wanted, anyKey);
    return slot ? slot->it : map_.end();
  }

  // `it` was just inserted into the map. Never throws: a table that cannot be kept in
  // step is dropped and built again at its next use.
  void inserted(iterator it) noexcept {
    if (exactBuilt_) {
      try {
        exact_.insert(exactHash(textOf(it)), it);
      } catch (...) {
        dropExact();
      }
    }
    if (foldedBuilt_) {
      try {
        std::size_t const hash = lowerCaseHashOf(it->first);
        auto* slot = folded_.find(hash, anyKey);
        if (slot == nullptr) {
          folded_.insert(hash, it);
        } else {
          // The slot keeps the first key in key order; the others wait in order behind it.
          auto& others = more_[hash];
          iterator later = it;
          if (it->first < slot->it->first) std::swap(later, slot->it);
          others.insert(std::lower_bound(others.begin(), others.end(), later, before), later);
        }
      } catch (...) {
        dropFolded();
      }
    }
  }

  // `it` is about to be erased from the map. Never throws, as `inserted`.
  void erasing(iterator it) noexcept {
    if (exactBuilt_) exact_.erase(exactHash(textOf(it)), [&](Slot const& s) { return s.it == it; });
    if (foldedBuilt_) {
      try {
        std::size_t const hash = lowerCaseHashOf(it->first);
        auto found = more_.find(hash);
        auto* slot = folded_.find(hash, anyKey);
        if (slot != nullptr && slot->it == it) {
          if (found == more_.end()) {
            folded_.erase(hash, anyKey);
            return;
          }
          slot->it = found->second.front();  // the next key in key order moves up
          found->second.erase(found->second.begin());
        } else if (found != more_.end()) {
          found->second.erase(std::remove(found->second.begin(), found->second.end(), it), found->second.end());
        }
        if (found != more_.end() && found->second.empty()) more_.erase(found);
      } catch (...) {
        dropFolded();
      }
    }
  }

  // The map was emptied (or replaced as a whole).
  void cleared() noexcept {
    dropExact();
    dropFolded();
  }

 private:
  struct Slot {
    std::size_t hash = 0;
    char16_t const* text = nullptr;  // the key's own text; null marks an empty slot
    std::size_t length = 0;
    iterator it{};
  };

  // An open-addressing table of slots with linear probing, at most three quarters full,
  // with backward-shift erasure (no tombstones).
  class Slots {
   public:
    void reserveFor(std::size_t count) {
      std::size_t capacity = 8;
      while (capacity * 3 < count * 4 + 4) capacity *= 2;
      if (capacity > slots_.size()) rehash(capacity);
    }
    template <class Match>
    Slot* find(std::size_t hash, Match const& match) {
      if (slots_.empty()) return nullptr;
      std::size_t const mask = slots_.size() - 1;
      for (std::size_t i = hash & mask; slots_[i].text != nullptr; i = (i + 1) & mask) {
        if (slots_[i].hash == hash && match(slots_[i])) return &slots_[i];
      }
      return nullptr;
    }
    void insert(std::size_t hash, iterator it) {
      reserveFor(size_ + 1);
      place(Slot{hash, it->first.toString().data(), it->first.toString().size(), it});
      ++size_;
    }
    template <class Match>
    void erase(std::size_t hash, Match const& match) noexcept {
      Slot* found = find(hash, match);
      if (found == nullptr) return;
      std::size_t const mask = slots_.size() - 1;
      std::size_t hole = static_cast<std::size_t>(found - slots_.data());
      for (std::size_t next = (hole + 1) & mask; slots_[next].text != nullptr; next = (next + 1) & mask) {
        std::size_t const home = slots_[next].hash & mask;
        // The slot stays where it is when its home lies cyclically in (hole, next].
        bool const stays = hole <= next ? (hole < home && home <= next) : (hole < home || home <= next);
        if (!stays) {
          slots_[hole] = slots_[next];
          hole = next;
        }
      }
      slots_[hole] = Slot{};
      --size_;
    }
    void clear() noexcept {
      slots_.clear();
      slots_.shrink_to_fit();
      size_ = 0;
    }

   private:
    void place(Slot const& slot) {
      std::size_t const mask = slots_.size() - 1;
      std::size_t i = slot.hash & mask;
      while (slots_[i].text != nullptr) i = (i + 1) & mask;
      slots_[i] = slot;
    }
    void rehash(std::size_t capacity) {
      std::vector<Slot> old(capacity);
      old.swap(slots_);
      for (auto const& slot : old) {
        if (slot.text != nullptr) place(slot);
      }
    }

    std::vector<Slot> slots_;  // size a power of two, or empty
    std::size_t size_ = 0;
  };

  static std::u16string_view textOf(iterator it) { return it->first.toString(); }
  static std::u16string_view viewOf(Slot const& slot) { return {slot.text, slot.length}; }
  static std::size_t exactHash(std::u16string_view text) { return std::hash<std::u16string_view>{}(text); }
  static bool anyKey(Slot const&) { return true; }
  static bool before(iterator const& a, iterator const& b) { return a->first < b->first; }

  void dropExact() noexcept {
    exact_.clear();
    exactBuilt_ = false;
  }
  void dropFolded() noexcept {
    folded_.clear();
    more_.clear();
    foldedBuilt_ = false;
  }

  Map& map_;
  Slots exact_;  // key text -> element, once exactBuilt_
  bool exactBuilt_ = false;
  Slots folded_;  // lower-case hash -> first element with it in key order, once foldedBuilt_
  std::unordered_map<std::size_t, std::vector<iterator>> more_;  // further elements per hash, in key order
  bool foldedBuilt_ = false;
};

}  // namespace storage::overlayprovider
