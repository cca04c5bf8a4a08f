// OverlayProvider: the provider the host sees for IRIs of the scheme "overlay".
//
// An overlay IRI wraps the IRI of a location in an inner store
// ("overlay:<mem://s1/>/docs/a.txt"). Every operation maps its IRI to the inner-most
// IRI, which keys both caches. Queries and listings are answered from the metadata
// cache, streams from the content cache's working entries; a mutation changes both
// caches at once and is then queued on the executor as one backend transaction (up to
// three attempts), in order. doc/design.md says what is served from where.
//
// Lifecycle. Construction makes the two caches and starts no thread. The first
// operation of any kind runs the lazy initialization once (retried by the next
// operation if it threw): it reads the environment (see OverlayOptions) unless it was
// given its values, then makes the executor (a BackendExecutor unless one was injected or
// synchronous mode installed a SynchronousExecutor), the quota accountant, the event
// listener, the timed latch, and then the whole-tree population of the metadata cache
// (in the background, or waited for in synchronous mode). `doShutdown` stops everything
// in a fixed order and is harmless to repeat; transactions still queued are dropped, so
// callers flush first. Content-cache files of a cache root the provider chose itself
// are removed at destruction unless the configuration asks to persist them.
//
// Errors name the overlay IRI the caller used (or its parent where the parent is at
// fault). A change that fails in the queue after it was acknowledged is reported
// through IWriteBehindStatus, never thrown.
//
// A stream opened for writing keeps its file's record frozen until its close has
// reached the store, and a flush keeps both caches while such a stream is open
// (doc/design.md: "Freezing and thawing of records", "The flush").
//
// Thread-safety: every operation may be called from any thread. Operations on the same
// IRI, or below a path being changed, are serialised by the path locks. Lock order:
// doc/design.md, "Locks".
#pragma once

#include <core/content/ContentCache.hpp>
#include <core/content/DeliveryReport.hpp>
#include <core/events/EventListener.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/quota/IQuotaAccountant.hpp>
#include <core/metadata/MetadataCache.hpp>
#include <core/exec/ObservableTransactionType.hpp>
#include <core/content/WorkingFileEntryParams.hpp>
#include <core/util/FlushGate.hpp>
#include <core/util/PathLocks.hpp>
#include <core/exec/SwitchableExecutor.hpp>
#include <core/exec/TimedLatch.hpp>
#include <core/provider/OverlayOptions.hpp>

#include <foundation/storage/provider/IConfigurableProvider.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.hpp>
#include <foundation/storage/provider/extensions/IInvalidatable.hpp>
#include <foundation/storage/provider/extensions/IAppliedChanges.hpp>
#include <foundation/storage/provider/extensions/IWriteBehindStatus.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class OverlayProvider : public fsp::IConfigurableProvider,
                        public fsp::extensions::IFlushableFilesystem,
                        public fsp::extensions::IInvalidatable,
                        public fsp::extensions::IWriteBehindStatus,
                        public fsp::extensions::IAppliedChanges {
 public:
  using StorageIRI = fsp::StorageIRI;
  using StorageItem = fsp::StorageItem;

  static constexpr std::int64_t kDefaultPayloadSize = OverlayOptions::kDefaultPayloadSize;

  // Lays the overlay on `inner`; no thread starts. The content cache uses a fresh cache
  // root under the temporary directory; the metadata cache matches names as the inner
  // store does (`getFilenameSensitivity()`).
  explicit OverlayProvider(StorageItem inner);
  // As above with the executor given; lazy initialization never replaces it.
  OverlayProvider(StorageItem inner, std::shared_ptr<IExecutor> executor);
  // As above with the caches given too (a null one is replaced by a new cache as the
  // first constructor makes it; the metadata cache is taken into shared ownership).
  OverlayProvider(StorageItem inner, std::unique_ptr<ContentCache> contentCache,
                  std::unique_ptr<MetadataCache> metadataCache, std::shared_ptr<IExecutor> executor);
  // Runs doShutdown again, logging and swallowing its failures, then removes the cache
  // root it chose itself unless the content cache is to persist.
  ~OverlayProvider() override;

  void doCreateFile(StorageIRI const& iri) const override;
  void doCreateFolder(StorageIRI const& iri) const override;
  void doCreateFolderRecursive(StorageIRI const& iri) const override;
  bool doFileExists(StorageIRI const& iri) const override;
  bool doFolderExists(StorageIRI const& iri) const override;
  void doRemoveFile(StorageIRI const& iri) const override;
  void doMoveFile(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const override;
  void doRemoveFolder(StorageIRI const& iri) const override;
  void doRemoveFolderRecursively(StorageIRI const& iri) const override;
  void doMoveFolder(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const override;
  fsp::FileAttributes doGetFileAttributes(StorageIRI const& iri) const override;
  fsp::FolderAttributes doGetFolderAttributes(StorageIRI const& iri) const override;
  fsp::ByteStreamPtr doOpenStream(StorageIRI const& iri, fsp::ByteStreamOpenOptions const& options) const override;
  fsp::ByteStreamPtr doOpenReadOnlyStream(StorageIRI const& iri) const override;
  fsp::FolderEntryIteratorPtr doListAll(StorageIRI const& iri) const override;
  fsp::FolderEntryIteratorPtr doListFiles(StorageIRI const& iri) const override;
  fsp::FolderEntryIteratorPtr doListFolders(StorageIRI const& iri) const override;
  void doCopyFile(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const override;
  void doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const override;
  void doSetWritable(StorageIRI const& iri, bool writable) const override;
  void doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                std::vector<foundation::storage::events::Kind> const& kinds,
                                foundation::storage::events::RecursiveFileWatching recursive) const override;
  void doPublishFileEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback) const override;
  void doStopPublishingEventsFor(StorageIRI const& iri) const override;
  // True only for feature value 0 (extended attributes), and only when the inner store
  // has it.
  bool doHasFeature(fsp::ExtendedFeature const& feature) const override;
  void doShutdown() override;
  fsp::ExtendedAttributes doGetExtendedAttributes(StorageIRI const& iri) const override;
  fsp::ProviderStorageInfo doGetProviderStorageInfo(StorageIRI const& iri) const override;

  // Passes the whole tree to the inner store, then reads the "overlay.*" keys in a fixed
  // order. Values that parse but cannot work (a payload size <= 0; a weight that is not
  // finite, or a negative minimum weight) throw std::invalid_argument before any key is
  // applied. Unparsable values are logged and end the reading; a negative
  // "overlay.maxQueueWeight" throws std::logic_error after the keys were read.
  void doConfigure(boost::property_tree::ptree config) override;

  // The values of the environment variables (latch time-out, wait-for-zero period, queue
  // statistics) taken from `options` instead of from the environment, which the first
  // operation reads otherwise. Call before the first operation; the key fields of
  // `options` are not used (doConfigure sets those).
  void setEnvironmentOptions(OverlayOptions const& options);

  // Returns when every change queued so far has reached the inner store. Then empties
  // both caches (the cache files too, unless they persist), so that the next access
  // reloads from the inner store, which ends a whole-tree population under way (the
  // flush returns once it has stopped); keeps both when a stream is open for writing or
  // a change of the overlay's own is still on its way (doc/design.md, "The flush").
  void doFlushFilesystem() override;
  void doFlushFilesystemImpl() const;
  // Invalidates the whole overlay (the metadata cache, which ends a whole-tree
  // population under way), whatever `iri` names, and the inner store's caches.
  void doInvalidate(StorageIRI const& iri) override;

  // The changes that failed for good in the queue (after their retries), the local
  // cache's failures and the folders the whole-tree population could not list, each
  // returned once; the queue's figures (see IWriteBehindStatus).
  std::vector<fsp::extensions::UndeliveredChange> takeUndeliveredChanges() override;
  std::vector<fsp::extensions::LocalCacheFailure> takeLocalCacheFailures() override;
  std::vector<fsp::extensions::UnlistedFolder> takeUnlistedFolders() override;
  fsp::extensions::QueueFigures getQueueFigures() const override;
  // Queues a marker that touches `location` and waits until it has run or was dropped.
  void waitForDelivery(StorageIRI const& location) override;
  // The store's change events the overlay has acted on go to `callback` (IAppliedChanges),
  // each once the caches have dropped what the event concerns.
  void onAppliedChanges(fsp::extensions::IAppliedChanges::Callback callback) override;

  // Creates the executor, the quota accountant, the event listener and the latch once,
  // then starts the whole-tree population of the metadata cache (waiting for it in
  // synchronous mode); safe to call from many threads. If a step throws, the next call
  // tries again.
  void lazyInitialize() const;
  // The same for an operation on `iri`: a store failure that stops the initialization
  // names `iri` (the caller's overlay IRI), as every error of the operation does.
  void lazyInitialize(StorageIRI const& iri) const;

  // The parameters every new working file entry is made with, from the configuration.
  WorkingFileEntryParams workingFileEntryParams() const;

  // The inner-most IRI of a root that callers' IRIs wrap, as getInnerMostURL() keeps it.
  struct WrappedRoot {
    std::u16string text;    // its text
    StorageIRI stripped;    // stripHostFrom of it
  };

  // The free getInnerMostURL(iri), with a shortcut: for an IRI that wraps the inner
  // store's own root (the usual case) the part that depends only on the wrapped root is
  // computed once, at construction, instead of at every operation; the result is the
  // same.
  StorageIRI getInnerMostURL(StorageIRI const& iri) const;

  // ---- for tests only ----------------------------------------------------------------
  std::shared_ptr<IExecutor> executor() const;
  double maxQueueWeight() const { return maxQueueWeight_.load(std::memory_order_acquire); }
  double minQueueItemWeight() const { return minQueueItemWeight_.load(std::memory_order_acquire); }
  std::int64_t maxReadPayloadSize() const { return maxReadPayloadSize_.load(std::memory_order_acquire); }
  std::int64_t maxWritePayloadSize() const { return maxWritePayloadSize_.load(std::memory_order_acquire); }
  bool persistContentCache() const { return persistContentCache_.load(std::memory_order_acquire); }
  bool isSynchronous() const { return synchronous_.load(std::memory_order_acquire); }
  bool isContentCacheDisabled() const { return disableContentCache_.load(std::memory_order_acquire); }
  bool backslashToForwardSlash() const { return backslashToForwardSlash_.load(std::memory_order_acquire); }
  bool isShutDown() const { return shutDown_.load(std::memory_order_acquire); }
  std::shared_ptr<TimedLatch> timedLatch() const;
  StorageItem const& innerItem() const { return *inner_; }
  std::shared_ptr<MetadataCache> const& metadataCache() const { return metadataCache_; }
  ContentCache const& contentCache() const { return *contentCache_; }
  std::shared_ptr<IQuotaAccountant> quotaAccountant() const;
  // True once a caching failure made the provider open the inner store's streams.
  bool isFallingBack() const { return fallback_.load(std::memory_order_acquire); }

 private:
  // The inner store's item for the inner-most IRI of `iri`.
  StorageItem innerItemFor(StorageIRI const& iri) const;
  // Runs `call`, re-raising an inner store's Exception so that it names the overlay IRI
  // that corresponds to the inner IRI it named (`iri` itself or one of its relatives).
  template <class Call>
  decltype(auto) forwarding(StorageIRI const& iri, Call&& call) const;
  // The overlay IRI (same wrapping as `like`) of the inner IRI `inner`.
  StorageIRI overlayIRIFor(StorageIRI const& like, StorageIRI const& inner) const;
  // The key fields in force (without the cache root, which the content cache keeps); the
  // environment fields are the defaults.
  OverlayOptions currentOptions() const;
  // The environment's values: those given, else read from the environment now, once.
  OverlayOptions environmentOptions() const;
  // Starts the pause-then-resume cycle of event handling.
  void triggerLatch() const;
  // The same for an operation that only reads (an opening for reading, a listing, a
  // storage query), unless "overlay.holdEventsForChangesOnly" is on.
  void triggerLatchForRead() const;
  // Unless shut down, queues `call` (an inner-store change named `name` of `location`,
  // an inner-most IRI, which touches `touches` in the store) with up to three attempts,
  // then `after` (a thaw) when it succeeded; a change that still fails goes into the
  // delivery report.
  void submit(char const* name, StorageIRI const& location, Touches const& touches, ObservableTransactionType type,
              std::function<void()> call, std::function<void()> after) const;
  // True when every folder above `inner` is known. An item below a folder that the
  // overlay removed or moved away is gone, even while the inner store still has it
  // because the change is queued.
  bool parentKnown(StorageIRI const& inner) const;
  // The metadata cache's answers for items whose parent folders are known (see above).
  std::shared_ptr<FileMetadata> fileRecord(StorageIRI const& inner) const;
  std::shared_ptr<FolderMetadata> folderRecord(StorageIRI const& inner) const;
  bool hasFileRecord(StorageIRI const& inner) const;
  bool hasFolderRecord(StorageIRI const& inner) const;
  // The file's or folder's writable flag; false when neither is known.
  bool recordIsWritable(StorageIRI const& inner) const;
  // Drops the file's content entry and its cache file.
  void discardCachedContent(StorageIRI const& inner) const;
  // The file's record as its content-cache entry sees it (a file being written has its
  // local size and time); null when no file is known at `inner`.
  std::shared_ptr<FileMetadata> getFileMetadata(StorageIRI const& inner) const;
  // Runs `update` on the content cache; a cache that cannot initialize (and so holds no
  // entries) is logged and skipped.
  template <class Update>
  void updateContentCache(Update&& update) const;
  // Empties the content cache; without persistence its cache files are deleted too.
  void dropContentCache() const;
  // Code 6 (InUse) against `iri` when the file has a content entry open in a way the
  // inner store cannot remove: open for writing where the store removes files open for
  // reading (feature 7), open at all where it cannot remove open files (no feature 6).
  void checkNotOpen(StorageIRI const& iri, StorageIRI const& inner) const;
  // Code 4 against the parent of `iri` when the parent folder is not known, code 2 when
  // it is not writable.
  void requireWritableParent(StorageIRI const& iri, StorageIRI const& inner) const;
  // The listing of the folder at `iri`, of the records `Pred` accepts.
  template <class Pred>
  fsp::FolderEntryIteratorPtr list(StorageIRI const& iri) const;
  // A stream over the file's working entry: read-write with `options`, read-only
  // without. Creates a new file's record when options allow. Throws
  // CachingErrorException when the content cache cannot serve the file.
  fsp::ByteStreamPtr openThroughCache(StorageIRI const& iri, StorageIRI const& inner,
                                      fsp::ByteStreamOpenOptions const* options) const;

  std::shared_ptr<StorageItem> const inner_;
  std::unique_ptr<ContentCache> const contentCache_;    // set at construction; locks internally
  std::shared_ptr<MetadataCache> const metadataCache_;  // set at construction; locks internally
  mutable std::shared_ptr<IExecutor> executor_;  // guarded by initMutex_
  // What the caches, the quota accountant and the event listener hold: follows executor_.
  std::shared_ptr<SwitchableExecutor> const executorHandle_;
  // Told by the event listener what it acted on; the host sets its callback.
  std::shared_ptr<AppliedChangeFeed> const appliedFeed_ = std::make_shared<AppliedChangeFeed>();
  // The configured values (see OverlayOptions for their defaults), each read on its own.
  std::atomic<double> maxQueueWeight_{OverlayOptions().maxQueueWeight};
  std::atomic<double> minQueueItemWeight_{OverlayOptions().minQueueItemWeight};
  std::atomic<std::int64_t> maxReadPayloadSize_{OverlayOptions().maxReadPayloadSize};
  std::atomic<std::int64_t> maxWritePayloadSize_{OverlayOptions().maxWritePayloadSize};
  std::atomic<std::int64_t> transfers_{OverlayOptions().transfers};
  std::atomic<std::int64_t> echoWindowMs_{OverlayOptions().echoWindowMs};
  std::atomic<bool> narrowInvalidation_{OverlayOptions().narrowInvalidation};
  std::atomic<bool> holdEventsForChangesOnly_{OverlayOptions().holdEventsForChangesOnly};
  std::atomic<bool> persistContentCache_{OverlayOptions().persistContentCache};
  std::atomic<bool> synchronous_{OverlayOptions().synchronous};
  // The environment's values once given or read; guarded by initMutex_.
  mutable std::optional<OverlayOptions> environment_;
  // Its wait-for-zero period, for the entries' parameters.
  mutable std::atomic<std::chrono::milliseconds::rep> waitForZeroPeriodMs_{OverlayOptions().waitForZeroPeriod.count()};
  mutable std::shared_ptr<IQuotaAccountant> quota_;  // written once under initOnce_, then read
  mutable PathLocks pathLocks_;
  // Closed by a flush once the queue has drained, while it decides whether to empty the
  // caches; passed by every operation that changes the caches or queues work (FlushGate).
  mutable FlushGate flushGate_;
  mutable std::shared_ptr<EventListener> eventListener_;  // written once under initOnce_, then read
  mutable std::shared_ptr<TimedLatch> timedLatch_;  // written once under initOnce_, then read
  std::atomic<bool> const bypass_{false};
  mutable std::once_flag initOnce_;
  mutable std::mutex initMutex_;  // guards executor_, environment_; the writes of quota_, eventListener_, timedLatch_
  mutable std::atomic<bool> shutDown_{false};  // handed to working entries by reference
  std::atomic<bool> disableContentCache_{OverlayOptions().disableContentCache};
  std::atomic<bool> backslashToForwardSlash_{OverlayOptions().backslashToForwardSlash};
  mutable std::atomic<bool> fallback_{false};  // set at the first caching failure, never cleared
  std::atomic<bool> ownCacheRoot_{true};  // false once the configuration named a cache root
  std::optional<WrappedRoot> const wrappedRoot_;  // set at construction; empty when not a root
  // The attribute reads that close transactions leave to a waiting flush; shared with the
  // content cache's entries.
  std::shared_ptr<FlushAttributeReads> const flushReads_ = std::make_shared<FlushAttributeReads>();
  // What did not reach the store; shared with the content cache's entries.
  std::shared_ptr<DeliveryReport> const deliveryReport_ = std::make_shared<DeliveryReport>();
};

}  // namespace storage::overlayprovider
