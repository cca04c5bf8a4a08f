// PathLocks: the provider's registry of locked paths.
//
// A lock on IRI X waits while X itself or any ancestor of X is held; a held descendant
// of X does not block X (the test is one-sided on purpose: an operation on a folder
// does not wait for operations inside it that already run). "Ancestor" means an IRI of
// the chain StorageIRI::getParent() walks up from X, compared by text. A pair (source
// and destination of a move) is taken in one step, so two moves in opposite directions
// cannot deadlock. Thread-safe. An operation takes its guard after its flush-gate
// passage and before any cache lock (doc/design.md, "Locks").
//
// The common cases (nothing or a few paths held) compare texts in place without building
// parents; doc/performance.md says why.
#pragma once

#include <core/util/Mutex.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <set>

namespace storage::overlayprovider {

class PathLocks {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;

 private:
  using Held = std::multiset<StorageIRI>;

 public:
  // Holds one path (or the two of a pair) until destroyed.
  class Guard {
   public:
    Guard(Guard&& other) noexcept;
    Guard(Guard const&) = delete;
    Guard& operator=(Guard const&) = delete;
    Guard& operator=(Guard&&) = delete;
    ~Guard();

   private:
    friend class PathLocks;
    Guard(PathLocks* owner, Held::iterator first) : owner_(owner), held_{first, first}, count_(1) {}
    Guard(PathLocks* owner, Held::iterator first, Held::iterator second)
        : owner_(owner), held_{first, second}, count_(2) {}
    PathLocks* owner_;                   // null once moved from
    std::array<Held::iterator, 2> held_;  // the first count_ are this guard's elements of held_
    std::size_t count_;
  };

  // Blocks until `iri` can be held, then holds it.
  Guard acquire(StorageIRI const& iri);
  // Blocks until neither `first` nor `second` conflicts, then holds both.
  Guard acquirePair(StorageIRI const& first, StorageIRI const& second);

  // For tests: whether `iri` is held right now.
  bool isHeld(StorageIRI const& iri) const;
  // For tests: whether acquire(iri) would wait right now (iri or an ancestor is held).
  bool wouldWait(StorageIRI const& iri) const;

 private:
  // Up to this many held paths are compared one by one; beyond, the parents of the
  // wanted IRI are looked up in the set.
  static constexpr std::size_t kScanLimit = 16;

  // True when `iri` or an ancestor of it is held.
  bool conflicts(StorageIRI const& iri) const REQUIRES(mutex_);
  // The same by walking getParent() and looking each parent up.
  bool conflictsByParents(StorageIRI const& iri) const REQUIRES(mutex_);
  void release(Guard& guard) EXCLUDES(mutex_);

  mutable Mutex mutex_;
  std::condition_variable released_;
  Held held_ GUARDED_BY(mutex_);
};

}  // namespace storage::overlayprovider
