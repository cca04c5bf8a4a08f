// Touches: what a queued backend transaction touches in the inner store, so that a queue
// of several lanes can run unrelated transactions at once and keep the order of related
// ones.
//
// A transaction touches a list of locations, each the text of an inner-most IRI: a file
// (its opening, payloads, close, attribute changes), a move's or copy's source and
// destination, a folder (its creation or removal, which covers everything below it).
// Two transactions are related when one location of the one is the same as, an ancestor
// of, or a descendant of one location of the other. A file and a folder are not told
// apart: a file's location may become a folder's later, and what was queued at or below
// it keeps its order all the same.
//
// A transaction that touches nothing (change events, quota polls) is a barrier: it waits
// for everything queued before it and holds back everything queued after it.
//
// Locations are compared as text, segment by segment at '/': "mem://s/a" is an ancestor
// of "mem://s/a/b" but not of "mem://s/ab". The caller passes resolved IRIs in one
// spelling (StorageIRI::getResolvedIRI().toString(), folded to one case where the store
// ignores case); one trailing '/' is ignored, so "mem://s/" and "mem://s" are the same
// folder.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

class Touches {
 public:
  // Touches nothing: a barrier.
  Touches() = default;

  // A file or a folder (everything below included).
  static Touches location(std::u16string iri) { return Touches({std::move(iri)}); }
  // A move or a copy: its source and its destination.
  static Touches transfer(std::u16string source, std::u16string destination) {
    return Touches({std::move(source), std::move(destination)});
  }
  // Any number of locations; none makes a barrier.
  explicit Touches(std::vector<std::u16string> locations) : locations_(std::move(locations)) {
    for (auto& location : locations_) {
      if (location.size() > 1 && location.back() == u'/') location.pop_back();
    }
  }
  Touches(std::initializer_list<std::u16string> locations) : Touches(std::vector<std::u16string>(locations)) {}

  // The same, carrying `bytes` of file content to the store (a payload): counted in the
  // queue's figures while the transaction waits; it changes no order.
  Touches carrying(std::uint64_t bytes) const {
    Touches copy = *this;
    copy.bytes_ = bytes;
    return copy;
  }
  std::uint64_t payloadBytes() const noexcept { return bytes_; }

  bool isBarrier() const noexcept { return locations_.empty(); }
  // The locations, each without a trailing '/'.
  std::vector<std::u16string> const& locations() const noexcept { return locations_; }

  // Whether `ancestor` lies strictly above `location` (both without a trailing '/').
  static bool isAncestor(std::u16string const& ancestor, std::u16string const& location) {
    return location.size() > ancestor.size() && location[ancestor.size()] == u'/' &&
           location.compare(0, ancestor.size(), ancestor) == 0;
  }
  // Whether two locations are the same or one lies above the other.
  static bool related(std::u16string const& a, std::u16string const& b) {
    return a == b || isAncestor(a, b) || isAncestor(b, a);
  }

 private:
  std::vector<std::u16string> locations_;
  std::uint64_t bytes_ = 0;
};

}  // namespace storage::overlayprovider
