// A provider that acknowledges changes before its store has them (write-behind), and
// answers for what became of them.
//
// A host asks after a flush: every change the provider told a caller was done but could
// not make in the store after its retries is one UndeliveredChange. Failures of a local
// cache alone (the store still got every change) are reported apart, so that a host can
// tell "something is missing from the store" from "the cache did not help this time".
// Folders its background listing of the store could not list are reported too.
#pragma once

#include <foundation/storage/provider/ErrorCode.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace foundation::storage::provider::extensions {

// One change that did not reach the store.
struct UndeliveredChange {
  StorageIRI location;            // the store's IRI of the file or folder
  std::string change;             // what the change was: "createFolder", "write", "close", ...
  std::optional<ErrorCode> code;  // the store's error code; empty for a failure of another kind
  std::string cause;              // with a code: the detail the store's error carried (may be
                                  // empty); without: the error's text
};

// One failure of the provider's local cache; the store was not affected.
struct LocalCacheFailure {
  StorageIRI location;  // the store's IRI of the file
  std::string what;     // what the cache was doing: "Failure in local cache writing", ...
  std::string cause;    // the reason, as the error said it
};

// A folder the provider could not list in the background (it lists it on demand then).
struct UnlistedFolder {
  StorageIRI location;            // the folder the store's error named
  std::optional<ErrorCode> code;  // the store's error code; empty for a failure of another kind
  std::string cause;              // as for UndeliveredChange
};

// Figures of the provider's queue of changes since it started.
struct QueueFigures {
  std::size_t queued = 0;                  // transactions waiting now
  std::uint64_t queuedBytes = 0;           // file content those transactions carry, in bytes
  std::uint64_t drains = 0;                // times the queue ran empty after being busy
  std::int64_t longestBusyPeriodMs = 0;    // from a push into an empty queue until it ran empty
  std::int64_t longestWaitMs = 0;          // the longest time a transaction waited to start
  double averageWaitMs = 0;                // over every transaction started so far
  std::map<std::string, std::uint64_t> transactions;  // queued so far, by kind ("write", ...)
};

class IWriteBehindStatus {
 public:
  virtual ~IWriteBehindStatus() = default;
  // The changes that did not reach the store since the last call, oldest first; each is
  // returned once. Thread-safe.
  virtual std::vector<UndeliveredChange> takeUndeliveredChanges() = 0;
  // The local cache's failures since the last call, oldest first; each is returned once.
  virtual std::vector<LocalCacheFailure> takeLocalCacheFailures() = 0;
  // The folders its background listing could not list since the last call; each once.
  virtual std::vector<UnlistedFolder> takeUnlistedFolders() = 0;
  // The queue's figures now (all zero for a provider that runs every change at once).
  virtual QueueFigures getQueueFigures() const = 0;
  // Blocks until every change to `location`, to a folder above it or to anything below
  // it that was queued before the call has been run: delivered, or given up and then
  // returned by takeUndeliveredChanges. Changes of other locations may still be on their
  // way. Returns at once when the provider has stopped. `location` is an IRI of this
  // provider. Thread-safe.
  virtual void waitForDelivery(StorageIRI const& location) = 0;
};

}  // namespace foundation::storage::provider::extensions
