// QuotaAccountant: the inner store's capacity and free space, kept in memory.
//
// The figures are taken from the inner store at construction and then again by a poll
// thread every poll period, but only while the backend queue is empty, so that the
// inner store's answer already includes the overlay's own queued work. Between polls the
// provider's operations adjust the free space: removed files and folder trees give space
// back (never above the capacity), added folder trees and written bytes take it (never
// below 0). The sizes of files and folder trees come from the metadata cache.
//
// A failed query of the inner store stops polling for good; the figures then keep what
// they last held and change only through the operations. Nothing is rethrown.
//
// Thread-safety: every operation may be called from any thread. `mutex_` guards the stop
// flag and both figures; the poll thread holds it across a whole query of the inner
// store. The metadata-cache queries run before the mutex is taken.
#pragma once

#include <core/exec/IExecutor.hpp>
#include <core/quota/IQuotaAccountant.hpp>
#include <core/metadata/MetadataCache.hpp>

#include <foundation/storage/provider/StorageItem.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace storage::overlayprovider {

class QuotaAccountant final : public IQuotaAccountant {
 public:
  // Queries the inner store once on the calling thread, then starts the poll thread.
  // The references must outlive the accountant. Throws std::system_error ("thread
  // constructor failed") when the thread cannot be started.
  QuotaAccountant(foundation::storage::provider::StorageItem const& inner, std::chrono::milliseconds pollPeriod,
                  MetadataCache const& metadataCache, std::shared_ptr<IExecutor> executor);
  // Stops and joins the poll thread; failures are discarded.
  ~QuotaAccountant() override;

  QuotaAccountant(QuotaAccountant const&) = delete;
  QuotaAccountant& operator=(QuotaAccountant const&) = delete;

  std::optional<std::uint64_t> getSpaceAvailable() const override;
  std::optional<std::uint64_t> getTotalCapacity() const override;
  // Stops polling, wakes the poll thread at once and joins it. Idempotent.
  void shutdown() override;
  // Gives back the space of the file's record.
  void removeFile(foundation::storage::provider::StorageIRI const& location) override;
  // Gives back the space of the cached files below the folder.
  void removeFolderTree(foundation::storage::provider::StorageIRI const& location) override;
  // Takes the space of the cached files below the folder.
  void addFolderTree(foundation::storage::provider::StorageIRI const& location) override;
  // Takes `bytes`.
  void addBytesWritten(std::size_t bytes) override;

  // One query of the inner store: capacity, and free space = capacity - occupied
  // (at least 0). A failure is logged and stops polling. Runs without the lock in the
  // constructor and with `mutex_` held on the poll thread.
  void queryBackendForSpaceAvailable();

 private:
  void createAndStartPollThread();
  void poll();
  // Free space + n, capped at the capacity. Called with `mutex_` held. Does not check
  // that the figures are known (callers do) and does not mark them known.
  void addToSpaceAvailable(std::uint64_t n);
  // Free space - n, at least 0; nothing while the free space is unknown. Called with
  // `mutex_` held (or from the query).
  void removeFromSpaceAvailable(std::uint64_t n);
  // Runs `amountOf`, then `apply` with the amount under the lock; a failure of either is
  // logged and leaves the figures as they were.
  template <class Amount, class Apply>
  void adjust(Amount&& amountOf, Apply&& apply);

  foundation::storage::provider::StorageItem const& inner_;
  std::chrono::milliseconds const pollPeriod_;
  MetadataCache const& metadataCache_;
  std::shared_ptr<IExecutor> const executor_;
  bool stop_ = false;                           // guarded by mutex_
  std::optional<std::uint64_t> totalCapacity_;  // guarded by mutex_
  std::optional<std::uint64_t> spaceAvailable_;  // guarded by mutex_
  mutable std::mutex mutex_;
  std::thread pollThread_;
  std::condition_variable wakeUp_;  // the poll thread sleeps on it; signalled by shutdown()
};

}  // namespace storage::overlayprovider
