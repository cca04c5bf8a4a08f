#include <core/util/PathLocks.hpp>

#include <string_view>

namespace storage::overlayprovider {

namespace {

// Where the path starts in the IRI's text (scheme, then "//authority" or "<inner>",
// then the path, then "?query" and "#fragment").
std::size_t pathStartOf(foundation::storage::provider::StorageIRI const& iri) {
  std::size_t tail = iri.getPath().size();
  if (iri.getQuery()) tail += iri.getQuery()->size() + 1;
  if (iri.getFragment()) tail += iri.getFragment()->size() + 1;
  return iri.toString().size() - tail;
}

// True when the path has no empty segment: no "//" and no "/" at its end, unless it is
// "/" itself. Then the parents that getParent() walks to are exactly the path cut before
// each of its "/" (the first one giving "/").
bool hasNoEmptySegment(std::u16string const& path) {
  if (path == u"/") return true;
  if (path.empty() || path.front() != u'/' || path.back() == u'/') return false;
  return path.find(u"//") == std::u16string::npos;
}

// True when `held`'s text is the text of one of the parents of `iri`, whose path has no
// empty segment and starts at `pathStart` of its text.
bool isParentText(std::u16string_view held, std::u16string_view text, std::size_t pathStart,
                  std::u16string const& path) {
  if (held.size() <= pathStart || held.compare(0, pathStart, text.substr(0, pathStart)) != 0) return false;
  std::u16string_view const heldPath = held.substr(pathStart);
  if (heldPath == u"/") return path != u"/";  // the root is the parent chain's last link
  // A proper prefix of the path that ends just before one of its "/".
  return heldPath.size() < path.size() && path[heldPath.size()] == u'/' &&
         std::u16string_view(path).substr(0, heldPath.size()) == heldPath;
}

}  // namespace

PathLocks::Guard::Guard(Guard&& other) noexcept
    : owner_(other.owner_), held_(other.held_), count_(other.count_) {
  other.owner_ = nullptr;
}

PathLocks::Guard::~Guard() {
  if (owner_) owner_->release(*this);
}

bool PathLocks::conflictsByParents(StorageIRI const& iri) const {
  if (held_.count(iri) != 0) return true;
  for (StorageIRI current = iri; current.hasParent();) {
    current = current.getParent();
    if (held_.count(current) != 0) return true;
  }
  return false;
}

bool PathLocks::conflicts(StorageIRI const& iri) const {
  if (held_.empty()) return false;
  if (held_.size() > kScanLimit || !hasNoEmptySegment(iri.getPath())) return conflictsByParents(iri);
  std::u16string_view const text = iri.toString();
  std::size_t const pathStart = pathStartOf(iri);
  for (auto const& held : held_) {
    if (held == iri || isParentText(held.toString(), text, pathStart, iri.getPath())) return true;
  }
  return false;
}

PathLocks::Guard PathLocks::acquire(StorageIRI const& iri) {
  UniqueLock lock(mutex_);
  while (conflicts(iri)) released_.wait(lock.native());
  return Guard(this, held_.insert(iri));
}

PathLocks::Guard PathLocks::acquirePair(StorageIRI const& first, StorageIRI const& second) {
  UniqueLock lock(mutex_);
  while (conflicts(first) || conflicts(second)) released_.wait(lock.native());
  auto const a = held_.insert(first);
  auto const b = held_.insert(second);
  return Guard(this, a, b);
}

bool PathLocks::isHeld(StorageIRI const& iri) const {
  LockGuard lock(mutex_);
  return held_.count(iri) != 0;
}

bool PathLocks::wouldWait(StorageIRI const& iri) const {
  LockGuard lock(mutex_);
  return conflicts(iri);
}

void PathLocks::release(Guard& guard) {
  {
    LockGuard lock(mutex_);
    for (std::size_t i = 0; i < guard.count_; ++i) held_.erase(guard.held_[i]);
  }
  released_.notify_all();
}

}  // namespace storage::overlayprovider
