#include <core/exec/OwnChanges.hpp>

#include <algorithm>
#include <exception>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

namespace {

std::u16string pathOf(fsp::StorageIRI const& iri) {
  std::u16string path = iri.getPath();
  if (path.size() > 1 && path.back() == u'/') path.pop_back();
  return path;
}

}  // namespace

OwnChanges::OwnChanges(std::chrono::milliseconds window, SteadyClockSource clock)
    : window_(window), clock_(std::move(clock)) {}

std::vector<OwnChanges::Expectation> OwnChanges::expectationsOf(ObservableTransactionType type,
                                                                Touches const& touches) {
  std::vector<Kind> kinds;  // one per touched location, in order
  switch (type) {
    case ObservableTransactionType::FOLDER_CREATION:
    case ObservableTransactionType::FOLDER_CREATION_RECURSIVE:
      kinds = {Kind::Added};
      break;
    case ObservableTransactionType::FOLDER_REMOVAL:
    case ObservableTransactionType::FOLDER_REMOVAL_RECURSIVE:
      kinds = {Kind::Removed};
      break;
    case ObservableTransactionType::FOLDER_MOVE:
      kinds = {Kind::Removed, Kind::Added};
      break;
    default:
      return {};
  }
  std::vector<Expectation> expected;
  auto const& locations = touches.locations();
  for (std::size_t i = 0; i < std::min(kinds.size(), locations.size()); ++i) {
    try {
      expected.emplace_back(pathOf(fsp::StorageIRI(locations[i])), kinds[i]);
    } catch (std::exception const&) {
      // Not an IRI: no event can name it either.
    }
  }
  return expected;
}

void OwnChanges::taken(ObservableTransactionType type, Touches const& touches) {
  auto const expected = expectationsOf(type, touches);
  if (expected.empty()) return;
  LockGuard lock(mutex_);
  for (auto const& [path, kind] : expected) {
    auto& record = byPath_[path];
    ++record.onTheWay;
    (kind == Kind::Added ? record.added : record.removed) = true;
  }
}

void OwnChanges::settled(ObservableTransactionType type, Touches const& touches) {
  auto const expected = expectationsOf(type, touches);
  if (expected.empty()) return;
  auto const now = clock_();
  LockGuard lock(mutex_);
  for (auto const& [path, kind] : expected) {
    auto found = byPath_.find(path);
    if (found == byPath_.end()) continue;
    if (found->second.onTheWay > 0) --found->second.onTheWay;
    found->second.settled = now;
  }
  prune(now);
}

void OwnChanges::prune(Clock::time_point now) {
  if (byPath_.size() < pruneAt_) return;
  std::erase_if(byPath_, [&](auto const& entry) {
    return entry.second.onTheWay == 0 && now - entry.second.settled > window_;
  });
  pruneAt_ = std::max<std::size_t>(64, 2 * byPath_.size());
}

bool OwnChanges::isEcho(fsp::StorageIRI const& location, Kind kind, EntryType entryType) const {
  if (entryType != EntryType::Folder || (kind != Kind::Added && kind != Kind::Removed)) return false;
  auto const path = pathOf(location);
  auto const now = clock_();
  LockGuard lock(mutex_);
  auto found = byPath_.find(path);
  if (found == byPath_.end()) return false;
  auto const& record = found->second;
  if (!(kind == Kind::Added ? record.added : record.removed)) return false;
  return record.onTheWay > 0 || now - record.settled <= window_;
}

}  // namespace storage::overlayprovider
