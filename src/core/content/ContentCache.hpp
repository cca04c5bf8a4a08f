// ContentCache: the registry of every file whose content the overlay holds on local disk.
//
// It maps each file location to one WorkingFileEntry, hands the entry out to every stream
// opened on the location, rebuilds it when an earlier write-behind failed, evicts the
// least recently accessed entry when the disk that holds the cache runs short, and
// follows the overlay's moves, copies and invalidations.
//
// Disk layout: <cache root>/<Versioning::GetVersionString()>/<name>.cache. The default
// cache root is the host's temporary directory joined with "overlay_cache-" and a fresh
// UUID; withCacheRoot replaces it. Nothing touches the disk before the first operation:
// every operation first checks the data directory and creates it (with any missing
// parent) when it is missing, so a data directory removed from outside comes back, and
// on the first successful check installs a LocalFSCacheSpaceArbitrator on it unless an
// arbitrator was installed before.
//
// Leaving entries. An entry that leaves the map (invalidation, a move that replaces it,
// eviction) goes to the recycle bin rather than being destroyed on the spot: streams,
// queued write-behind and readers on other threads may still hold it. emptyRecycleBin()
// only asks for the bin to be emptied; that happens at the next disposal (or at
// invalidateAll), under the cache's lock.
//
// Cache files. Eviction, a changed watermark and a write problem delete the entry's
// cache file; a plain invalidation keeps it, since the entry may go on serving its open
// streams from it. A new entry takes a cache file it finds on disk for a complete copy
// of the file (after a staleness check); that is right for files left by an earlier run
// under a persistent cache root, but not for one that an entry of this run used: such a
// file holds only the bytes that entry fetched, and the entry may still be writing to
// it. So when this cache makes an entry for a file whose cache file one of its earlier
// entries used, it deletes the name first and starts the new entry with nothing cached
// (the earlier entry keeps reading through its open handle).
//
// Failures. Setting up the data directory or the arbitrator fails with
// CachingErrorException("Problem initializing cache root.") and is tried again at the next
// operation. Every failure to make an entry, lack of space included, is logged with its
// cause and reaches the caller as CachingErrorException("Caching failed due to an
// unknown error."); the caller then reads the inner store directly.
//
// Thread-safety and locks. One mutex (`mutex_`) serialises every operation on the map,
// the recycle bin and the arbitrator, including the space check and the evictions of
// retrieveEntry, so that two threads opening files cannot both pass the check for the
// same free bytes. Calls into entries are made with `mutex_` held; entries take their
// own locks inside, so the order is always this cache first, an entry second (an entry
// never calls back into the cache). moveFolder consults the metadata cache with
// `mutex_` held: this cache's lock comes before the metadata cache's. Dropping or moving
// an entry waits, with `mutex_` held, for the entry's queued open (no queued transaction
// takes `mutex_`). The overlay's whole hierarchy: doc/design.md, "Locks".
#pragma once

#include <core/content/CachingErrorException.hpp>
#include <core/content/DeliveryReport.hpp>
#include <core/metadata/FileMetadata.hpp>
#include <core/content/ICacheSpaceArbitrator.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/quota/IQuotaAccountant.hpp>
#include <core/content/LocalFSCacheSpaceArbitrator.hpp>
#include <core/exec/TimedLatch.hpp>
#include <core/util/Mutex.hpp>
#include <core/content/WorkingFileEntry.hpp>
#include <core/content/WorkingFileEntryParams.hpp>

#include <fl/filesystem.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/provider/Types.hpp>

#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace storage::overlayprovider {

class MetadataCache;

class ContentCache {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;

  // A cache whose root is the host's temporary directory joined with "overlay_cache-" and
  // a fresh UUID. Nothing is created on disk. `entryTiming` is given to every entry this
  // cache makes (tests pass clocks of their own); `spaceQuery` measures the volume for
  // the LocalFSCacheSpaceArbitrator made at initialization. Throws when the temporary
  // directory is unusable or no UUID can be generated.
  explicit ContentCache(EntryTiming entryTiming = {},
                        LocalFSCacheSpaceArbitrator::SpaceQuery spaceQuery = LocalFSCacheSpaceArbitrator::measureVolume);
  ~ContentCache();
  ContentCache(ContentCache const&) = delete;
  ContentCache& operator=(ContentCache const&) = delete;

  // Replaces the cache root; returns this cache. Meant to be called before first use.
  // Called later, entries made afterwards live under the new root, and an arbitrator
  // this cache made for itself is made anew for the new root at the next operation
  // (one installed with setCacheSpaceArbitrator stays).
  ContentCache& withCacheRoot(fl::filesystem::path cacheRoot) EXCLUDES(mutex_);
  // Installs `arbitrator`, replacing any present one; with one installed before the first
  // operation, no LocalFSCacheSpaceArbitrator is made.
  void setCacheSpaceArbitrator(std::unique_ptr<ICacheSpaceArbitrator> arbitrator) EXCLUDES(mutex_);
  // The provider's FlushAttributeReads, handed to every entry made from now on
  // (WorkingFileEntry::setFlushAttributeReads).
  void setFlushAttributeReads(std::shared_ptr<FlushAttributeReads> reads) EXCLUDES(mutex_);
  // The provider's way of thawing a written file's record, handed to every entry made from
  // now on (WorkingFileEntry::setThawWritten).
  void setThawWritten(WorkingFileEntry::ThawWritten thaw) EXCLUDES(mutex_);
  // The provider's delivery report, handed to every entry made from now on
  // (WorkingFileEntry::setDeliveryReport); the cache's own failures go there too.
  void setDeliveryReport(std::shared_ptr<DeliveryReport> report) EXCLUDES(mutex_);

  // Empties the recycle bin and releases every entry, as invalidateAll does, without the
  // lazy initialization: for an owner going away, which must not make the data directory
  // again after its root was removed from outside.
  void releaseAll() const EXCLUDES(mutex_);

  // A test's seam: `hook` runs at the start of every staleness check (invalidateOldEntry),
  // on the caller's thread with no lock held, and is given the location. A test acts there
  // between a caller's look-up of a file's record and the check against it. Empty by
  // default. Call before the cache is shared.
  void setBeforeStalenessCheck(std::function<void(StorageIRI const&)> hook);

  // Makes sure the data directory exists and the arbitrator is installed (see above).
  // Throws CachingErrorException("Problem initializing cache root.").
  void lazyInitialize() const EXCLUDES(mutex_);

  // Each operation below takes `mutex_` for its whole duration and first runs the
  // initialization, whose failure (CachingErrorException) it passes on.

  // An entry is registered for `location`.
  bool hasEntry(StorageIRI const& location) const;
  // An entry is registered for `location` and some caller stream holds it; with
  // `forWriting`, moreover, the entry is not opened read-only.
  bool hasAliveEntry(StorageIRI const& location, bool forWriting) const;
  // Some registered entry is held by a caller stream that is not read-only.
  bool hasEntryOpenForWriting() const;

  // The entry for `location`: the registered one, unless its write-behind failed; then
  // (logged "Retrieving <location> due to previous abort.") its cache file is deleted,
  // it is disposed and a fresh entry is made. Before making an entry, asks the arbitrator
  // for `metadata`'s size, evicting the least recently accessed entry while the answer
  // is no. The new entry gets the data directory and every other argument unchanged.
  // Throws CachingErrorException("Caching failed due to an unknown error.") when no
  // entry can be made (also when there is no space and nothing left to evict), after
  // logging the cause.
  std::shared_ptr<WorkingFileEntry> retrieveEntry(StorageIRI const& location,
                                                  std::shared_ptr<foundation::storage::provider::StorageItem> innerItem,
                                                  std::shared_ptr<FileMetadata> metadata,
                                                  std::shared_ptr<IExecutor> executor,
                                                  std::shared_ptr<IQuotaAccountant> quota,
                                                  std::shared_ptr<TimedLatch> latch, WorkingFileEntryParams params,
                                                  std::atomic<bool>& shutdownFlag) const;

  // The entry registered for `location`, for a query that needs no entry of its own:
  // null when none is registered. An entry whose content differs from `watermark` is
  // dropped first, exactly as invalidateOldEntry(location, watermark, false) drops it, and
  // null is returned. Unlike the operations below it does not check the data directory:
  // it makes nothing on disk, and with no entry registered it touches nothing at all.
  // Passes on what reading the entry's watermark throws.
  std::shared_ptr<WorkingFileEntry> currentEntry(StorageIRI const& location, std::string const& watermark) const;
  // As above for `record`, compared as invalidateOldEntry(location, record, false)
  // compares it; its watermark is read only when an entry is registered and does not
  // share it (a query about a file that no one has opened costs one look-up).
  std::shared_ptr<WorkingFileEntry> currentEntry(StorageIRI const& location, FileMetadata const& record) const;

  // Drops the entry of `location`, if any: it finishes its pending open, is aborted when
  // `abort` is set, learns that it was invalidated, and goes to the recycle bin. Its cache
  // file stays for the next entry of the location to check. A failure of the pending
  // open is logged; the entry is dropped all the same.
  void invalidate(StorageIRI const& location, bool abort) const;
  // Drops the entry of `location` only when its content differs from `watermark` (the
  // file changed elsewhere): aborted when `abort` is set, its cache file deleted, then
  // disposed. An equal watermark keeps it. Passes on what reading the entry's watermark
  // throws.
  void invalidateOldEntry(StorageIRI const& location, std::string const& watermark, bool abort) const;
  // As above for a caller holding the file's record: the entry is dropped only when
  // `record` describes other content (WorkingFileEntry::hasDifferentWatermark(record)).
  // The entry's own record is never taken for stale, however its attributes changed since
  // the caller looked it up: a close transaction refreshing it must not drop an entry that
  // open streams still write to (their writes would vanish from the overlay's view until
  // written behind).
  void invalidateOldEntry(StorageIRI const& location, FileMetadata const& record, bool abort) const;
  // Drops every entry strictly below `folder` (aborted when `abort` is set); an entry
  // registered for `folder` itself stays.
  void invalidateAllDescendantsOf(StorageIRI const& folder, bool abort) const;

  // The file moved from `from` to `to` with record `newMetadata`: its entry, if any,
  // finishes its pending open and moves there with its cache file, replacing (and
  // disposing) an entry registered at `to`. Nothing happens without an entry at `from`.
  void moveFile(StorageIRI const& from, StorageIRI const& to, std::shared_ptr<FileMetadata> newMetadata) const;
  // The file at `from` was copied to `to` with record `newMetadata`: an entry at `from`
  // gives a new entry at `to` whose cache file is a copy of its bytes (replacing and
  // disposing one registered there); the source entry is untouched. When the copy cannot
  // be made it is logged and whatever was registered at `to` is dropped, so that `to` is
  // read from the inner store.
  void copyFile(StorageIRI const& from, StorageIRI const& to, std::shared_ptr<FileMetadata> newMetadata) const;
  // The folder moved from `from` to `to`; call after `metadataCache` has followed the
  // move. Every entry below `from` moves to the same relative place below `to` with the
  // record the metadata cache now has there, after whatever was registered at that place
  // is dropped (aborted). With policy KeepExisting (4), a file that stayed at the
  // destination (the metadata cache holds a record there other than the moving entry's)
  // keeps its entry and the moving entry is dropped instead. An entry for which the
  // metadata cache has no record, or whose lookup fails (logged), is dropped.
  void moveFolder(StorageIRI const& from, StorageIRI const& to, foundation::storage::provider::ReplacementPolicy policy,
                  MetadataCache const& metadataCache) const;

  // Asks for the recycle bin to be emptied at the next disposal. Lock-free: callable from
  // any thread with any lock held.
  void emptyRecycleBin() const;
  // Empties the recycle bin, then releases every entry of the map. Nothing is aborted and
  // no cache file is deleted.
  void invalidateAll() const;

  // ---- for tests only (each takes `mutex_`, no initialization) ---------------------------
  fl::filesystem::path getCacheRoot() const;
  // The cache root joined with the version text.
  fl::filesystem::path getDataDirectory() const;
  std::size_t recycleBinSize() const;
  // Locations of the registered entries, in order.
  std::vector<StorageIRI> entryLocations() const;

 private:
  using EntryPtr = std::shared_ptr<WorkingFileEntry>;

  // currentEntry with `isStale(entry)` asked only when an entry is found.
  template <class Stale>
  EntryPtr currentEntryIf(StorageIRI const& location, Stale const& isStale) const EXCLUDES(mutex_);
  // invalidateOldEntry with `isStale(entry)` deciding.
  template <class Stale>
  void invalidateOldEntryIf(StorageIRI const& location, Stale const& isStale, bool abort) const EXCLUDES(mutex_);

  void doLazyInitialize() const REQUIRES(mutex_);
  fl::filesystem::path doGetDataDirectory() const REQUIRES(mutex_);
  // Moves `entry` into the recycle bin, first emptying the bin if that was asked for.
  void dispose(EntryPtr entry) const REQUIRES(mutex_);
  // Evicts the entry with the oldest last access time (the first in location order among
  // equal times): deletes its cache file, disposes it, tells the arbitrator.
  void removeLeastRecentlyUsedItem() const REQUIRES(mutex_);
  void doInvalidate(StorageIRI const& location, bool abort) const REQUIRES(mutex_);
  // Takes the entry of `location` out of the map (null when there is none) after its
  // pending open completed (a failed open is logged by the entry).
  EntryPtr takeSettledEntry(StorageIRI const& location) const REQUIRES(mutex_);
  // Registers `entry` at `location`, disposing an entry registered there before.
  void replaceEntry(StorageIRI const& location, EntryPtr entry) const REQUIRES(mutex_);
  // Records the file `entry` now uses among the files this cache's entries used.
  void noteCheckoutPath(WorkingFileEntry const& entry) const REQUIRES(mutex_);

  EntryTiming const entryTiming_;
  LocalFSCacheSpaceArbitrator::SpaceQuery const spaceQuery_;

  mutable Mutex mutex_;
  fl::filesystem::path cacheRoot_ GUARDED_BY(mutex_);
  mutable std::map<StorageIRI, EntryPtr> entries_ GUARDED_BY(mutex_);  // never holds an empty owner
  mutable std::vector<EntryPtr> recycleBin_ GUARDED_BY(mutex_);
  mutable std::unique_ptr<ICacheSpaceArbitrator> spaceArbitrator_ GUARDED_BY(mutex_);
  // spaceArbitrator_ was made by initialization, not installed
  mutable bool arbitratorIsOwn_ GUARDED_BY(mutex_) = false;
  mutable bool initialized_ GUARDED_BY(mutex_) = false;
  // The cache files of every entry this cache made with disk caching. A later entry for
  // the same file does not take over what is on disk there (see "Cache files" above).
  mutable std::set<fl::filesystem::path> madePaths_ GUARDED_BY(mutex_);
  std::shared_ptr<FlushAttributeReads> flushReads_ GUARDED_BY(mutex_);  // handed to new entries; may be null
  WorkingFileEntry::ThawWritten thawWritten_ GUARDED_BY(mutex_);        // handed to new entries; may be empty
  std::shared_ptr<DeliveryReport> deliveryReport_ GUARDED_BY(mutex_);   // handed to new entries; may be null
  std::function<void(StorageIRI const&)> beforeStalenessCheck_;  // set before sharing; may be empty
  // Set by emptyRecycleBin(), taken (exchanged with false) by the next disposal.
  mutable std::atomic<bool> recycleBinEmptyRequested_{false};
};

}  // namespace storage::overlayprovider
