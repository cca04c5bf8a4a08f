// WorkingFileEntry: one overlay file as the content cache holds it, the read-through and
// write-behind heart of the content cache.
//
// An entry owns the file's cache resource (its bytes on local disk), the handle on the
// inner store's open stream, the write buffer that gathers callers' writes into
// payloads, and the counters that tie it to the backend executor. ContentCache makes
// entries and hands them out; every caller stream on the same location
// (WorkingFileByteStream) shares one entry.
//
// Reading: bytes that the cache holds are served from the cache file; the rest is read
// through from the inner store in payloads of at most the maximum read payload size,
// each payload also stored in the cache. A read that has to go to the inner store first
// waits (bounded) for this entry's queued write-behind transactions, so that it sees
// bytes they are about to deliver.
//
// Writing: bytes land in the cache file at once and are gathered in a WritableBuffer;
// each full buffer is queued on the executor as one FILE_WRITE transaction. Closing the
// last caller stream queues what remains and a FILE_CLOSE transaction (or, for a
// read-only entry with nothing queued, closes the inner stream at once; a read-only
// entry's queued close only closes the stream). A FILE_WRITE
// gets three attempts (transient failures and errors that are not the store's; a
// refusal gets one); one that still fails aborts the entry for good ("aborted due to a
// write problem"), goes into the delivery report, and later writes store nothing;
// ContentCache replaces the entry on the next retrieval.
//
// Opening is asynchronous: openReadWrite queues the opening of the inner stream (three
// attempts, as for a payload) and returns; the first operation that needs the inner
// stream waits for it. openReadOnly opens nothing: a reader whose bytes all come from
// the cache makes no store call. The first read that needs bytes from the store starts
// the open for the entry's path at that moment, on the reader's thread when the executor
// has nothing queued or running that is related to the path (IExecutor::tryRunHere),
// else queued behind what is.
//
// Closing stamps the cache file's times on the caller's thread and leaves making its
// content durable (fdatasync, skipped when nothing was stored since the last one) to the
// FILE_CLOSE transaction, before it closes the inner stream; a read-only close with
// nothing pending syncs on a thread of the entry's own. A reader going through the file
// in order has its next payload fetched ahead (kReadAheadAfter). Why, and what each
// saves: doc/performance.md.
//
// Ownership: an entry must be owned by a std::shared_ptr (std::make_shared) before it is
// opened or written: queued transactions keep it alive through shared_from_this().
//
// Parts, each with its own lock: InnerStream (the inner store's stream and the opens
// that claim it), ReadAhead (the fetch ahead), PendingTransactions (the count of queued
// write-behind), AbortState and BackgroundSync (the read-only close's sync).
//
// Locks and their order (never take one to the left while holding one to the right):
//   ContentCache's mutex -> mutex_ -> InnerStream's; those of ReadAhead,
//   PendingTransactions, AbortState and BackgroundSync are leaves. A fetch ahead is
//   waited for with no entry mutex held. Transaction bodies never take mutex_ (a
//   SynchronousExecutor runs them inline under it), and no one waits for the open
//   transaction while holding InnerStream's. The overlay's whole hierarchy:
//   doc/design.md, "Locks".
#pragma once

#include <core/content/AbortState.hpp>
#include <core/content/BackgroundSync.hpp>
#include <core/content/CacheResource.hpp>
#include <core/content/DeliveryReport.hpp>
#include <core/content/EntryTiming.hpp>
#include <core/content/FilesystemCacheResource.hpp>
#include <core/content/FlushAttributeReads.hpp>
#include <core/content/InnerStream.hpp>
#include <core/content/PendingTransactions.hpp>
#include <core/content/ReadAhead.hpp>
#include <core/content/WorkingFileEntryParams.hpp>
#include <core/content/WritableBuffer.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/exec/TimedLatch.hpp>
#include <core/metadata/FileMetadata.hpp>
#include <core/quota/IQuotaAccountant.hpp>
#include <core/util/Mutex.hpp>

#include <fl/filesystem.hpp>
#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <future>
#include <ios>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace storage::overlayprovider {

class WorkingFileEntry : public std::enable_shared_from_this<WorkingFileEntry> {
 public:
  using ByteStreamPtr = InnerStream::ByteStreamPtr;
  // Waits for the queued open transaction and yields the inner stream it opened (or
  // found open); rethrows the open's failure.
  using OpenOperation = std::function<ByteStreamPtr()>;
  using DurabilityHandle = FilesystemCacheResource::DurabilityHandle;

  // Open states of the entry.
  static constexpr std::int32_t kNotOpened = 0;
  static constexpr std::int32_t kOpenedReadOnly = 1;
  static constexpr std::int32_t kOpenedReadWrite = 2;

  // Retries of a failed inner read on a partly cached range, and the pause between them.
  static constexpr int kMaxReadRetries = 10;
  static constexpr std::chrono::milliseconds kReadRetryPause{2000};
  // An entry for `metadata`'s file (its location becomes the entry's location) whose
  // cache resource lives in `cacheDirectory` (the data directory): a
  // FilesystemCacheResource when `params` use disk caching, else a NOOPCacheResource.
  // `innerItem` is the inner store's item for the file; transactions build items on its
  // provider for the entry's current path. `quotaAccountant` and `latch` may be null
  // (no quota figure, nothing to trigger). `shutdownFlag` is the provider's and must
  // outlive the entry and its queued transactions. Starts nothing.
  // Throws std::invalid_argument for a null `metadata`, `innerItem` or `executor`, and
  // what the cache resource's constructor throws.
  WorkingFileEntry(fl::filesystem::path cacheDirectory, std::shared_ptr<FileMetadata> metadata,
                   std::shared_ptr<foundation::storage::provider::StorageItem> innerItem,
                   std::shared_ptr<IExecutor> executor, std::shared_ptr<IQuotaAccountant> quotaAccountant,
                   std::shared_ptr<TimedLatch> latch, WorkingFileEntryParams params, std::atomic<bool>& shutdownFlag,
                   EntryTiming timing = {});

  // The same, for an entry whose cache file starts as a copy of the cache file at
  // `sourceCheckoutPath` (used by copy()): with disk caching the resource is made by
  // FilesystemCacheResource's copying constructor. `initialCachePosition` is the number
  // of bytes at the start of the file that cacheInitialPartOfFileNotYetCached() makes
  // sure are cached.
  WorkingFileEntry(fl::filesystem::path cacheDirectory, std::shared_ptr<FileMetadata> metadata,
                   std::shared_ptr<foundation::storage::provider::StorageItem> innerItem,
                   std::shared_ptr<IExecutor> executor, std::shared_ptr<IQuotaAccountant> quotaAccountant,
                   std::shared_ptr<TimedLatch> latch, fl::filesystem::path const& sourceCheckoutPath,
                   std::streampos initialCachePosition, WorkingFileEntryParams params,
                   std::atomic<bool>& shutdownFlag, EntryTiming timing = {});

  WorkingFileEntry(WorkingFileEntry const&) = delete;
  WorkingFileEntry& operator=(WorkingFileEntry const&) = delete;
  // Releases the cache resource (closing its file) and the inner stream without closing
  // it: an entry is destroyed only after its streams and transactions let go of it.
  ~WorkingFileEntry();

  // ---- accessors (each takes the lock it names) -----------------------------------

  // The current metadata record (under mutex_).
  std::shared_ptr<FileMetadata> getMetadata() const;
  // The entry's location: the file's inner-most IRI (under mutex_).
  foundation::storage::provider::StorageIRI getLocation() const;
  // The metadata's size: the file's size as the overlay sees it (under mutex_).
  unsigned long getFileSize() const;
  // When a read or write last began (atomic).
  std::chrono::steady_clock::time_point getLastAccessTime() const;
  // True while a FILE_WRITE or FILE_CLOSE transaction of this entry is queued or running
  // (under the pending mutex).
  bool hasPendingBackgroundIO() const;
  // True exactly when the entry is opened read-only (under mutex_).
  bool isReadOnly() const;
  // The number of open caller streams (under mutex_).
  std::int64_t getRefCount() const;
  // The cache file's path; empty without disk caching (under mutex_).
  fl::filesystem::path getCheckoutPath() const;


  // Subtracts one from the number of open caller streams, never going below 0 (under
  // mutex_).
  void decrementRefCount();

  // The file moved to `location` (a folder move): takes the new location and moves the
  // cache file to the new location's name (under mutex_). Returns this entry.
  WorkingFileEntry& withNewLocation(foundation::storage::provider::StorageIRI location);
  // Replaces the metadata record (under mutex_). Throws std::invalid_argument for null.
  // Returns this entry.
  WorkingFileEntry& withNewMetadata(std::shared_ptr<FileMetadata> metadata);

  // Records that the content cache dropped this entry because the file changed.
  void setInvalidationWasTriggered();

  // Deletes the cached content (the cache resource's remove(), under mutex_).
  void removeCachedEntry();

  // True when `watermark` differs from the current metadata's watermark (under mutex_).
  // Passes on what FileMetadata::getWatermark throws.
  bool hasDifferentWatermark(std::string const& watermark) const;
  // True when `record` describes other content than this entry holds. Never for the
  // entry's own record: a close transaction refreshes that record's attributes in place,
  // so a watermark read from it earlier may differ from what it says now, yet both come
  // from the one record the entry's writes go with. For another record, as above with its
  // watermark, read without mutex_. Passes on what FileMetadata::getWatermark throws.
  bool hasDifferentWatermark(FileMetadata const& record) const;

  // ---- abort state -----------------------------------------------------------------

  // Marks the entry aborted now: every call moves the abort time.
  // Write-behind payloads queued before now are skipped, and waits that began before now
  // end early.
  void setAbort();
  // True once a write-behind payload failed; the entry then stores nothing more.
  bool wasAbortedDueToWriteProblem() const;
  // True when the entry was aborted at or after `since`, or was aborted due to a write
  // problem: a wait that began at `since` may give up.
  bool canReturnEarlyWhenAbortIsSet(std::chrono::steady_clock::time_point since) const;

  // ---- opening -----------------------------------------------------------------------

  // A caller stream opens the entry for reading (under mutex_): adds one to the
  // reference count and, unless the entry is already open in either mode, prepares a
  // FILE_OPEN_READONLY open that starts when a read first needs the inner stream. With
  // synchronous parameters the open has completed on return (its failure is then thrown
  // here).
  void openReadOnly();

  // A caller stream opens the entry for reading and writing: adds one to the reference
  // count. With `options.truncate`, drops the unsent write buffer, aborts the entry (so
  // queued payloads are skipped), tells the quota accountant to forget the file, empties
  // the cache and sets the size to 0. Then marks the entry read-write and, under the same
  // hold of mutex_, queues a FILE_OPEN_READWRITE open with `options` (unless the entry
  // was already open read-write and no truncation is asked for), so that every payload
  // queued by a stream that finds the entry read-write runs after it; then, if it was
  // open read-only by no other stream with nothing pending, closes the read-only inner
  // stream now (unless the new open has claimed it already). Releases mutex_ before
  // touching the inner stream. With synchronous parameters the open has completed on
  // return (its failure is then thrown here).
  void openReadWrite(foundation::storage::provider::ByteStreamOpenOptions const& options);

  // If a caller stream holds the entry, waits until the open transaction that has been
  // started has completed (a read-only open that no read has started yet is left
  // unstarted). Logs ("Exception caught: ...") and rethrows the open's failure;
  // std::bad_function_call if no open was ever queued. Called by ContentCache with its
  // mutex held; takes mutex_ briefly, never waits while holding it.
  void checkAndOpenIfNecessary();

  // ---- reading -----------------------------------------------------------------------

  // Reads up to `count` bytes at absolute `position` into `buffer`. Returns the number of
  // bytes delivered (0 for a count of 0), or -1 when `position` is at or after the end of
  // the file. Bytes the cache holds come from the cache; the rest is read through from
  // the inner store (first waiting, at most the wait-for-zero period, for this entry's
  // pending write-behind) and stored in the cache. A failing inner read is retried, up
  // to kMaxReadRetries times kReadRetryPause apart, only when the start of the range was
  // cached; otherwise the read ends short. Never reads past the file's size.
  // Throws std::invalid_argument for a negative count. Takes no lock across inner I/O.
  std::streamsize read(std::streampos position, char* buffer, std::streamsize count);

  // A reader that has fetched this many bytes of the file in order from the inner store
  // (two payloads of the default size) has the next payload fetched ahead on a thread of
  // its own, taken when the reader asks for that payload (doc/performance.md).
  static constexpr std::int64_t kReadAheadAfter = 8 << 20;

  // ---- writing -----------------------------------------------------------------------

  // Writes `count` bytes at absolute `position`. Triggers the latch, then: if the inner
  // store's cache usage reports fewer available bytes than position + count, pushes out
  // what is buffered and throws Exception(NoCacheSpace); under mutex_, unless aborted
  // due to a write problem (then nothing is stored): if the quota accountant's figure
  // does not cover the growth, throws Exception(QuotaExceeded); fills a gap beyond the
  // end with zeros; stores the bytes in the cache and the write buffer (queueing full
  // payloads); updates quota, size and last-modified time. Returns `count`.
  // Throws std::invalid_argument for a negative count; passes on what the inner store's
  // cache-usage query throws.
  std::streamsize write(std::streampos position, char const* data, std::streamsize count);

  // Writes `count` bytes at the end of the file. As write(), without latch trigger or
  // gap, with its own limits: fails with NoCacheSpace when size + count is at least the
  // cache-usage figure, with QuotaExceeded when the quota figure is at most `count`.
  // Returns 0 on success.
  std::streamsize append(char const* data, std::streamsize count);

  // The close path of one caller stream (under mutex_, released around inner I/O).
  // Releases the stream's share (reference count down by one, never below 0). An entry
  // aborted due to a write problem does nothing more. Otherwise stamps the cache file
  // with the metadata's last-modified time and queues what remains in the write buffer;
  // when this was the last stream: closes a read-only inner stream now if nothing is
  // pending (making the cache file durable first), else queues a FILE_CLOSE transaction
  // (make the cache file durable, close the inner stream, and, unless the entry was
  // read-only, stamp its last-modified time and refresh the extended attributes and
  // watermark; thaw the metadata), and the entry
  // becomes not opened. The sync of the cache file is skipped when nothing was stored
  // in it since the last one.
  void flushContentCache();

  // The provider's FlushAttributeReads: while a flush waits for the queue, a FILE_CLOSE
  // transaction hands its read of the file's extended attributes there instead of making
  // it. Without it (the default) the read is always made. Call
  // before the entry is shared; copies made by copy() take it over.
  void setFlushAttributeReads(std::shared_ptr<FlushAttributeReads> reads);

  // How a FILE_CLOSE transaction thaws the record of the file it has put into the store.
  // The provider passes MetadataCache::thawWritten, which first lets a listing of the
  // folder that is under way (and may predate the store's copy) take the record back.
  // Without one (the default) the record is thawed directly. Call before the entry is
  // shared; copies made by copy() take it over.
  using ThawWritten = std::function<void(std::shared_ptr<FileMetadata> const&)>;
  void setThawWritten(ThawWritten thaw);

  // Where the entry reports the changes it could not deliver to the store (a payload, the
  // close, the time stamp) and the failures of its cache file. Without one (the default)
  // they are only logged. Call before the entry is shared; copies take it over.
  void setDeliveryReport(std::shared_ptr<DeliveryReport> report);

  // ---- copies and moves -----------------------------------------------------------------

  // A new entry for the copy whose metadata is `newMetadata`: caches the head of this
  // file first, flushes the cache and queues the buffered bytes, then builds an entry
  // with the same directory, executor, accountant, latch, parameters and shutdown flag
  // whose cache file is a copy of this one's. Throws what the constructor throws.
  std::shared_ptr<WorkingFileEntry> copy(std::shared_ptr<FileMetadata> newMetadata);

  // The file moved to `newLocation` with record `newMetadata` (under mutex_): the cache
  // file follows. Throws std::invalid_argument for a null record.
  void moveToNewLocation(foundation::storage::provider::StorageIRI newLocation,
                         std::shared_ptr<FileMetadata> newMetadata);

  // ---- for tests only ----------------------------------------------------------------

  // True once opened by a caller stream and until the last one closed (under mutex_).
  bool isOpen() const;
  // Adds one to the number of open caller streams (under mutex_).
  void incrementRefCount();
  // Whether setInvalidationWasTriggered() was called.
  bool wasInvalidationTriggered() const;
  // The last abort time, or nothing if setAbort() was never called.
  std::optional<std::chrono::steady_clock::time_point> getAbortTime() const;
  // True when `position` is at or beyond the file's size (under mutex_).
  bool atEOF(unsigned long long position) const;

 private:
  class PendingToken;

  // Queues a transaction of `type` that opens the inner stream for the entry's current
  // path (read-only for FILE_OPEN_READONLY, otherwise read-write with `options`), and
  // stores an OpenOperation that waits for it. The transaction reuses an inner stream
  // that is already open, unless it opens for writing and that stream is read-only or
  // `options` ask for truncation; then it closes that stream and opens a new one.
  void enqueueOpenOperation(ObservableTransactionType type,
                            foundation::storage::provider::ByteStreamOpenOptions const& options = {})
      REQUIRES(mutex_);
  // Stores an OpenOperation whose first call starts the read-only open (see above).
  void prepareReadOnlyOpen() REQUIRES(mutex_);
  // Starts a read-only open of generation `generation` for the entry's path now,
  // fulfilling `promise`.
  void startReadOnlyOpen(std::shared_ptr<std::promise<ByteStreamPtr>> promise, std::uint64_t generation)
      EXCLUDES(mutex_);
  // The open transaction's body: up to three attempts, the outcome into `promise`.
  void runOpen(std::shared_ptr<std::promise<ByteStreamPtr>> const& promise,
               foundation::storage::provider::StorageIRI const& location, bool forWriting,
               foundation::storage::provider::ByteStreamOpenOptions const& options, std::uint64_t generation);

  // Makes sure the first `initialCachePosition` bytes of the file are cached, fetching
  // payloads from `position` on; stops at the first payload that yields nothing.
  void cacheInitialPartOfFileNotYetCached(std::streampos position) EXCLUDES(mutex_);

  // Adds one to the count of this entry's pending transactions.
  void incrementPendingCounter();

  // Fetches one payload at `position` from the inner store, stores it in the cache and
  // copies up to `count` of its bytes to `buffer`. The payload is the maximum read
  // payload size when the entry is open read-only with nothing pending (read-ahead),
  // otherwise `count` capped at that size; never past the file's size. Bytes the cache
  // already holds are neither overwritten in the cache nor taken from the payload: the
  // cached bytes (possibly written by a caller and not yet written behind) win.
  // Returns the count copied, 0 for nothing to read, -1 when the inner read failed.
  std::streamsize readFromInnerAndWriteToCache(std::streampos position, char* buffer, std::streamsize count)
      EXCLUDES(mutex_);
  // Stores caller bytes in the cache unless it is write-errored.
  void writeToCache(std::streampos position, char const* data, std::streamsize count) REQUIRES(mutex_);
  // Puts bytes into the write buffer, queueing payloads as the buffer fills or refuses
  // them.
  void writeToInner(std::streampos position, char const* data, std::streamsize count) REQUIRES(mutex_);
  // Queues the buffered bytes as one FILE_WRITE transaction.
  void enqueueInnerWrite() REQUIRES(mutex_);
  // The body of a FILE_WRITE transaction. Takes InnerStream's lock, never mutex_.
  void runInnerWrite(std::streampos start, std::vector<char> const& bytes,
                     std::chrono::steady_clock::time_point enqueued, OpenOperation const& openOperation,
                     foundation::storage::provider::StorageIRI const& location,
                     std::shared_ptr<FileMetadata> const& metadata);
  // The body of a FILE_CLOSE transaction queued when open number `generation` was the
  // latest: first makes the cache file durable (`durability`, when given), then closes
  // the inner stream and stamps the inner file. Takes InnerStream's lock, never mutex_.
  void runInnerClose(foundation::storage::provider::StorageIRI const& location,
                     std::shared_ptr<FileMetadata> const& metadata, std::uint64_t generation,
                     DurabilityHandle* durability);
  // Closes and drops the inner stream now unless an open queued after open number
  // `generation` has claimed it, then thaws `metadata`. Caller holds no entry mutex.
  // Close failures are logged.
  void closeInnerStreamNow(std::shared_ptr<FileMetadata> const& metadata, std::uint64_t generation)
      EXCLUDES(mutex_);
  // `payload` holds `payloadSize` bytes at `position` of which the inner store
  // delivered the first `fetched`. Stores the fetched bytes in the cache except where the
  // cache already holds bytes, and copies cached bytes over the payload instead, so the
  // payload shows what the overlay's file holds (the cache may hold bytes the inner store
  // does not have yet). Returns how many bytes from the start of the payload are known:
  // the fetched ones, extended by cached runs that continue them.
  std::streamsize mergePayloadWithCache(std::streamoff position, char* payload, std::streamsize fetched,
                                        std::streamsize payloadSize) REQUIRES(mutex_);
  // Fetches every byte of [0, size) that the cache lacks. Returns whether the whole file
  // is cached afterwards. Takes no lock across inner I/O.
  bool cacheWholeFile() EXCLUDES(mutex_);
  // Pushes out what is buffered: cache flush, then the buffer's payload.
  void flushBuffered() REQUIRES(mutex_);
  // The close path's cache flush without the wait for the disk: stamps the cache file
  // with the metadata's last-modified time now and returns its pending sync (null when
  // there is nothing to make durable, or without disk caching).
  std::shared_ptr<DurabilityHandle> stampCacheFile() REQUIRES(mutex_);
  // Waits until nothing is pending or the wait-for-zero period has passed.
  void waitForPendingToDrain();
  // The open transaction's result, waiting for it; an empty callable throws
  // std::bad_function_call. Caller holds no entry mutex.
  ByteStreamPtr awaitOpen(OpenOperation const& openOperation) const EXCLUDES(mutex_);
  // The stored OpenOperation.
  OpenOperation currentOpenOperation() const EXCLUDES(mutex_);
  // Waits for the open transaction `openOperation`, then seeks the inner stream to
  // `position` and reads up to `count` bytes (InnerStream::read). Takes InnerStream's
  // lock, never mutex_.
  std::streamsize readFromInnerStream(OpenOperation const& openOperation,
                                      foundation::storage::provider::StorageIRI const& location,
                                      std::streampos position, char* buffer, std::streamsize count);
  // Builds the cache resource of `metadata` for the constructors.
  std::shared_ptr<CacheResource> buildCacheResource(std::shared_ptr<FileMetadata> const& metadata,
                                                    fl::filesystem::path const* sourceCheckoutPath) const;
  // An item on the inner store's provider for `location`'s path.
  foundation::storage::provider::StorageItem innerItemFor(
      foundation::storage::provider::StorageIRI const& location) const;
  // Puts the exception being handled into the delivery report, if any, as `change` of
  // `location` that did not reach the store. Call only from a catch block.
  void reportUndelivered(foundation::storage::provider::StorageIRI const& location, char const* change) const noexcept;

  fl::filesystem::path const cacheDirectory_;
  std::shared_ptr<FileMetadata> metadata_ GUARDED_BY(mutex_);
  foundation::storage::provider::StorageIRI location_ GUARDED_BY(mutex_);
  std::shared_ptr<foundation::storage::provider::StorageItem> const innerItem_;
  std::shared_ptr<IExecutor> const executor_;
  std::shared_ptr<IQuotaAccountant> const quotaAccountant_;  // may be null
  std::shared_ptr<TimedLatch> const latch_;                  // may be null
  WorkingFileEntryParams const params_;
  EntryTiming const timing_;
  std::shared_ptr<CacheResource> cacheResource_ GUARDED_BY(mutex_);
  std::int64_t initialCachePosition_ GUARDED_BY(mutex_) = 0;
  std::unique_ptr<WritableBuffer> currentBuffer_ GUARDED_BY(mutex_);  // empty until a write

  InnerStream innerStream_;

  std::int64_t refCount_ GUARDED_BY(mutex_) = 0;
  std::int32_t openMode_ GUARDED_BY(mutex_) = kNotOpened;
  OpenOperation openOperation_ GUARDED_BY(mutex_);           // empty until an open is queued
  // Set while openOperation_ is a read-only open that no read has started yet.
  std::shared_ptr<std::atomic<bool>> unstartedOpen_ GUARDED_BY(mutex_);
  std::uint64_t openGeneration_ GUARDED_BY(mutex_) = 0;      // number of the latest queued open

  AbortState abort_;
  PendingTransactions pending_;
  ReadAhead readAhead_;

  std::shared_ptr<FlushAttributeReads> flushReads_;  // set before the entry is shared; may be null
  ThawWritten thawWritten_;                          // set before the entry is shared; may be empty
  std::shared_ptr<DeliveryReport> deliveryReport_;   // set before the entry is shared; may be null
  BackgroundSync backgroundSync_;                    // the read-only close's sync

  std::atomic<std::chrono::steady_clock::time_point> lastAccessTime_;
  std::atomic<bool> invalidationWasTriggered_{false};
  std::atomic<bool>& shutdownFlag_;
  mutable Mutex mutex_;  // the entry's lock (see the lock order above)
};

}  // namespace storage::overlayprovider
