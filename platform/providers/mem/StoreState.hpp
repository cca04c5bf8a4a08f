// StoreState: everything one `mem` store is made of, shared by the provider, its side
// door and the streams it hands out (a stream may outlive the provider).
#pragma once

#include "EventDispatcher.hpp"
#include "MemoryTree.hpp"
#include "OperationControls.hpp"

#include <providers/mem/MemoryProvider.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/date_time/posix_time/ptime.hpp>
#include <boost/property_tree/ptree.hpp>

#include <atomic>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace providers::mem::detail {

struct StoreState {
  explicit StoreState(MemoryProvider::Options const& options);

  std::u16string const name;
  foundation::storage::provider::StorageIRI const root;  // mem://<name>/
  foundation::storage::provider::FilenameSensitivity const sensitivity;

  OperationControls controls;
  EventDispatcher events;
  std::atomic<std::size_t> openStreams{0};  // streams handed out and not yet closed

  // Guards tree (and every Node and FileData in it), features, capacity,
  // cacheSpaceAvailable and lastConfiguration. Never held while a call waits at a gate,
  // sleeps, or runs an event callback.
  mutable std::mutex treeMutex;
  MemoryTree tree;
  std::set<foundation::storage::provider::ExtendedFeature> features;
  std::optional<unsigned long> capacity;
  std::optional<unsigned long> cacheSpaceAvailable;
  boost::property_tree::ptree lastConfiguration;

  // The current time, UTC, to the microsecond.
  static boost::posix_time::ptime now();

  // `text` as UTF-8 for messages; code units that do not convert become '?'.
  static std::string display(std::u16string const& text);

  // mem://<name><path>.
  foundation::storage::provider::StorageIRI iriOfPath(std::u16string const& path) const;
  // "/" followed by the first `count` segments.
  static std::u16string joinPath(Segments const& segments, std::size_t count);

  // Caller holds treeMutex. Publishes `kind` about `node` at its place in the tree.
  void publish(foundation::storage::events::Kind kind, Node const& node);
  // Caller holds treeMutex. Publishes `kind` about the item at `path` (match keys
  // `keys`) of `type`.
  void publishAt(foundation::storage::events::Kind kind, Segments keys, std::u16string const& path,
                 foundation::storage::events::EntryType type, boost::property_tree::ptree details = {});
  // Caller holds treeMutex. Publishes a move of `moved`, which was at `fromPath` (match
  // keys `fromKeys`): Removed there and Added where it is now, both with "from" and "to".
  void publishMove(Segments fromKeys, std::u16string const& fromPath, Node const& moved);

  // Caller holds treeMutex. Throws InUse (6) naming `iri` when a file at or below `node`
  // has a stream open that the features do not allow to remove.
  void checkRemovable(Node const& node, foundation::storage::provider::StorageIRI const& iri) const;
};

}  // namespace providers::mem::detail
