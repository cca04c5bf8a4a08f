// OverlayProvider: the provider the host sees for IRIs of the scheme "overlay".
//
// An overlay IRI wraps the IRI of a location in an inner store
// ("overlay:<mem://s1/>/docs/a.txt"). Every operation maps its IRI to the inner-most
// IRI and works on the inner store through `StorageItem(inner item, inner path)`.
//
// Lifecycle. Construction makes the metadata cache and starts no thread. The first
// operation of any kind runs the lazy initialization once (retried by the next
// operation if it threw): the executor (a BackendExecutor unless one was injected or
// synchronous mode installed a SynchronousExecutor), the timed latch, and then the
// whole-tree population of the metadata cache (in the background, or waited for in
// synchronous mode). `doShutdown` stops everything in a fixed order and is harmless to
// repeat; the destructor runs it again.
//
// What is served from where. The caches (content on local disk, metadata in memory),
// the quota accountant and the event listener are built on top of this class; until an
// operation is served by a cache it forwards to the inner store, so that the overlay
// already answers every operation as the inner store does. Errors raised by the inner
// store are re-raised naming the overlay IRI the caller used (same error code).
//
// Thread-safety: every operation may be called from any thread. Mutations on the same
// IRI, or below a path being changed, are serialised by the path locks.
#pragma once

#include <core/IExecutor.hpp>
#include <core/MetadataCache.hpp>
#include <core/PathLocks.hpp>
#include <core/TimedLatch.hpp>

#include <foundation/storage/provider/IConfigurableProvider.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/provider/extensions/IFlushableFilesystem.hpp>
#include <foundation/storage/provider/extensions/IInvalidatable.hpp>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace storage::overlayprovider {

namespace fsp = foundation::storage::provider;

class OverlayProvider : public fsp::IConfigurableProvider,
                        public fsp::extensions::IFlushableFilesystem,
                        public fsp::extensions::IInvalidatable {
 public:
  using StorageIRI = fsp::StorageIRI;
  using StorageItem = fsp::StorageItem;

  static constexpr std::int64_t kDefaultPayloadSize = 4194304;

  // Lays the overlay on `inner`; no thread starts. The metadata cache matches names as
  // the inner store does (`getFilenameSensitivity()`).
  explicit OverlayProvider(StorageItem inner);
  // As above with the executor given; lazy initialization never replaces it.
  OverlayProvider(StorageItem inner, std::shared_ptr<IExecutor> executor);
  // As above with the metadata cache given too (taken into shared ownership; a null one
  // is replaced by a new cache as the first constructor makes it).
  OverlayProvider(StorageItem inner, std::unique_ptr<MetadataCache> metadataCache,
                  std::shared_ptr<IExecutor> executor);
  // Runs doShutdown again, logging and swallowing its failures.
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
  // order. Unparsable values are logged and end the reading; a negative
  // "overlay.maxQueueWeight" throws std::logic_error after the inner store was
  // configured.
  void doConfigure(boost::property_tree::ptree config) override;

  // Returns when every change queued so far has reached the inner store (after a
  // pending whole-tree population of the metadata cache), then empties the metadata
  // cache: the next access reloads from the inner store.
  void doFlushFilesystem() override;
  void doFlushFilesystemImpl() const;
  // Invalidates the whole overlay (the metadata cache), whatever `iri` names, and the
  // inner store's caches.
  void doInvalidate(StorageIRI const& iri) override;

  // Creates the executor and the latch once, then starts the whole-tree population of
  // the metadata cache (waiting for it in synchronous mode); safe to call from many
  // threads. If a step throws, the next call tries again.
  void lazyInitialize() const;

  // Read access for tests and tools.
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

 private:
  // The inner store's item for the inner-most IRI of `iri`.
  StorageItem innerItemFor(StorageIRI const& iri) const;
  // Runs `call`, re-raising an inner store's Exception so that it names the overlay IRI
  // that corresponds to the inner IRI it named (`iri` itself or one of its relatives).
  template <class Call>
  decltype(auto) forwarding(StorageIRI const& iri, Call&& call) const;
  // The overlay IRI (same wrapping as `like`) of the inner IRI `inner`.
  StorageIRI overlayIRIFor(StorageIRI const& like, StorageIRI const& inner) const;
  // Starts the pause-then-resume cycle of event handling.
  void triggerLatch() const;

  std::shared_ptr<StorageItem> const inner_;
  std::shared_ptr<MetadataCache> const metadataCache_;  // set at construction; locks internally
  mutable std::shared_ptr<IExecutor> executor_;  // guarded by initMutex_
  std::atomic<double> maxQueueWeight_{0};
  std::atomic<double> minQueueItemWeight_{0};
  std::atomic<std::int64_t> maxReadPayloadSize_{kDefaultPayloadSize};
  std::atomic<std::int64_t> maxWritePayloadSize_{kDefaultPayloadSize};
  std::atomic<bool> persistContentCache_{false};
  std::atomic<bool> synchronous_{false};
  mutable PathLocks pathLocks_;
  mutable std::shared_ptr<TimedLatch> timedLatch_;  // written once under initOnce_, then read
  std::atomic<bool> const bypass_{false};
  mutable std::once_flag initOnce_;
  mutable std::mutex initMutex_;  // guards executor_ creation and replacement
  std::atomic<bool> shutDown_{false};
  std::atomic<bool> disableContentCache_{false};
  std::atomic<bool> backslashToForwardSlash_{false};
};

}  // namespace storage::overlayprovider
