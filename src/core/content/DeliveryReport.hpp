// DeliveryReport: what the overlay could not deliver to its store, kept for the host.
//
// The overlay acknowledges a change before the store has it. When the queued change then
// fails for good (after its retries), the caller that was told "done" has gone; the
// failure is logged and also kept here, so that a host asks for it by a call after a
// flush (OverlayProvider implements IWriteBehindStatus with it) instead of reading log
// text. Failures of the local cache alone, after which the store still gets every change,
// are kept apart.
//
// Thread-safety: every member function may be called from any thread.
#pragma once

#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <cstddef>
#include <exception>
#include <mutex>
#include <string>
#include <vector>

namespace storage::overlayprovider {

class DeliveryReport {
 public:
  // At most this many of each kind are kept; later ones are only in the log.
  static constexpr std::size_t kLimit = 1000;

  // Records that `change` of `location` (the store's IRI) did not reach the store because
  // of `error` (its code is kept when it is the store's Exception). Never throws.
  void undelivered(foundation::storage::provider::StorageIRI const& location, std::string change,
                   std::exception_ptr error) noexcept;
  // Records a failure of the local cache for `location`; `what` says what it was doing.
  // Never throws.
  void localCacheFailed(foundation::storage::provider::StorageIRI const& location, std::string what,
                        std::exception_ptr error) noexcept;

  // Records that the background listing could not list `folder`. Never throws.
  void unlisted(foundation::storage::provider::StorageIRI const& folder, std::exception_ptr error) noexcept;

  std::vector<foundation::storage::provider::extensions::UndeliveredChange> takeUndelivered();
  std::vector<foundation::storage::provider::extensions::UnlistedFolder> takeUnlisted();
  std::vector<foundation::storage::provider::extensions::LocalCacheFailure> takeLocalCacheFailures();

 private:
  std::mutex mutex_;  // guards the three lists
  std::vector<foundation::storage::provider::extensions::UndeliveredChange> undelivered_;
  std::vector<foundation::storage::provider::extensions::LocalCacheFailure> cacheFailures_;
  std::vector<foundation::storage::provider::extensions::UnlistedFolder> unlisted_;
};

// The text of `error` for a report: the detail of the store's Exception (which may be
// empty: its code says the rest), else its what(), or "unknown error".
std::string describe(std::exception_ptr const& error);

}  // namespace storage::overlayprovider
