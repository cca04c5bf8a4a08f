// PathLocks: the provider's registry of locked paths.
//
// A lock on IRI X waits while X itself or any ancestor of X is held; a held descendant
// of X does not block X (the test is one-sided on purpose: an operation on a folder
// does not wait for operations inside it that already run). A pair (source and
// destination of a move) is taken in one step, so two moves in opposite directions
// cannot deadlock. Thread-safe.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <condition_variable>
#include <mutex>
#include <set>

namespace storage::overlayprovider {

class PathLocks {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;

  // Holds one path until destroyed.
  class Guard {
   public:
    Guard(Guard&& other) noexcept;
    Guard(Guard const&) = delete;
    Guard& operator=(Guard const&) = delete;
    Guard& operator=(Guard&&) = delete;
    ~Guard();

   private:
    friend class PathLocks;
    Guard(PathLocks* owner, std::vector<StorageIRI> held) : owner_(owner), held_(std::move(held)) {}
    PathLocks* owner_;
    std::vector<StorageIRI> held_;
  };

  // Blocks until `iri` can be held, then holds it.
  Guard acquire(StorageIRI const& iri);
  // Blocks until neither `first` nor `second` conflicts, then holds both.
  Guard acquirePair(StorageIRI const& first, StorageIRI const& second);

  // For tests: whether `iri` is held right now.
  bool isHeld(StorageIRI const& iri) const;

 private:
  // True when `iri` or an ancestor of it is held. Caller holds mutex_.
  bool conflicts(StorageIRI const& iri) const;
  void release(std::vector<StorageIRI> const& held);

  mutable std::mutex mutex_;  // guards held_
  std::condition_variable released_;
  std::multiset<StorageIRI> held_;
};

}  // namespace storage::overlayprovider
