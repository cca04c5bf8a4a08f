// IQuotaAccountant: what the overlay knows about the inner store's quota.
//
// The overlay answers storage-information queries and refuses writes that would exceed
// the inner store's space without asking the inner store each time. An accountant keeps
// the total capacity and the space available in memory and adjusts them as the overlay
// removes files and folder trees, adds folder trees and writes bytes; an implementation
// may refresh them from the inner store from time to time.
//
// Thread-safety: every operation may be called from any thread; implementations lock
// internally.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>

namespace storage::overlayprovider {

class IQuotaAccountant {
 public:
  virtual ~IQuotaAccountant() = default;

  // Bytes still free in the inner store; empty while unknown.
  virtual std::optional<std::uint64_t> getSpaceAvailable() const = 0;

  // Total capacity of the inner store in bytes; empty while unknown.
  virtual std::optional<std::uint64_t> getTotalCapacity() const = 0;

  // Stops any background refreshing. Idempotent.
  virtual void shutdown() = 0;

  // The file at `location` is going away (or is being rewritten): the space it occupies
  // becomes available again.
  virtual void removeFile(foundation::storage::provider::StorageIRI const& location) = 0;

  // The folder tree at `location` is going away: the space its files occupy becomes
  // available again.
  virtual void removeFolderTree(foundation::storage::provider::StorageIRI const& location) = 0;

  // The folder tree at `location` was added: the space its files occupy is taken.
  virtual void addFolderTree(foundation::storage::provider::StorageIRI const& location) = 0;

  // `bytes` more bytes are taken.
  virtual void addBytesWritten(std::size_t bytes) = 0;
};

}  // namespace storage::overlayprovider
