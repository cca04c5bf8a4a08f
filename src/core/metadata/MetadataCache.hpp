// MetadataCache: the overlay's in-memory tree of file and folder metadata for one inner
// store.
//
// The tree is a map from folder IRI to folder entry (IFolderEntry), one entry per cached
// folder, each holding the folder's own record and its children's records. It answers
// what is at an IRI from memory, loads a folder from the inner store the first time
// someone looks into it (FutureFolderEntry), and applies the overlay's own changes
// (creations, removals, moves, copies) at once, before the inner store has seen them.
//
// Keys. Every public operation first maps its IRI argument with getInnerMostURL and works
// on that form only; entries, children and snapshot entries are keyed by inner-most IRIs.
// With case sensitivity off, folders and children are matched by the lower-case hash rule
// of IFolderEntry. Folders are found through a hash index (LocationIndex), so finding one
// costs the same in a tree of any size; a folder's children are found by name in the
// folder's ordered set (FolderChildren).
//
// Freezing. Records made by local changes are frozen. Before a queued invalidation drops
// folders, the frozen records are saved in the frozen snapshot and put back into the
// freshly listed tree at the next folder access; a saved file record still frozen also
// replaces the record the new listing made for the same file. The provider thaws records
// once the inner store has accepted the change; a thawed record is ordinary cache
// content. Why: doc/design.md, "Freezing and thawing of records".
//
// Pace of invalidation. `enqueueInvalidationProcess` (cheap, for event threads) only
// records the IRI. Almost every public operation starts by working off pending
// invalidations, one parent folder per operation in IRI order, so that a burst of events
// costs each operation at most one re-listing ("to trigger" below).
// `enqueueItemInvalidation` records an item instead, for the narrow invalidation that
// "overlay.narrowInvalidation" switches on: worked off at the same points (all pending
// items at once), it drops the listing of the folder holding the item and the item's own
// listing, with everything below the item when asked; the other folders stay cached.
//
// Population. When the inner store can list its whole tree in one call, the cache fills
// itself from one recursive listing on a background thread. Folders being filled are
// invisible until the walk has left them; then they join the tree whole. So answers never
// come from a half-filled folder, yet nobody waits for the whole tree: a folder already
// filled answers at once, and one not yet filled is listed on its own, as without
// population (see PopulationWalk in the source). Emptying the whole tree ends a population
// under way.

// Failures. Error code 4 (does not exist) from the inner store is an answer: lookups
// return null, hasFile/hasFolder false, and a cached folder whose load reports it is
// dropped with its cached sub-tree before the exception goes on to the caller. Every other
// exception from the inner store or a listing passes to the caller unchanged.
//
// Thread-safety and locks. One mutex (`guard_`, the cache lock) guards the tree, the
// snapshot and the pending set. Lock order: the cache lock, then a folder entry's lock,
// then a record's lock; never the reverse. The cache lock is not held while waiting for
// a listing, except when an entry is dropped or made anew between the wait and the work
// (doc/design.md, "Locks"). Entries that leave the tree are destroyed after the lock is
// released. Records carry their own locks and may be used without the cache lock.
#pragma once

#include <core/metadata/FileOrFolderMetadata.hpp>
#include <core/metadata/FrozenRecords.hpp>
#include <core/metadata/IFolderEntry.hpp>
#include <core/metadata/TreePopulation.hpp>
#include <core/util/LocationIndex.hpp>
#include <core/util/Mutex.hpp>

#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/StorageItem.hpp>
#include <foundation/storage/provider/Types.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <atomic>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

namespace storage::overlayprovider {

class CacheKey;

class MetadataCache {
 public:
  using StorageIRI = fsp::StorageIRI;
  using FolderMap = std::map<StorageIRI, std::shared_ptr<IFolderEntry>>;
  using Snapshot = FrozenRecords::Snapshot;

  // The extended attribute that marks a folder whose content a recursive listing does
  // not provide; such a folder is listed on its own.
  static constexpr char const* kInitiallyInvalid = "initiallyInvalid";

  // An empty tree over `inner`, the inner store's root item. `caseSensitive` chooses
  // exact or case-insensitive matching of names.
  MetadataCache(std::shared_ptr<fsp::StorageItem> inner, bool caseSensitive);
  // Waits for a running population (its failure is ignored), then releases everything;
  // destroying listing entries waits for their listings.
  virtual ~MetadataCache();
  MetadataCache(MetadataCache const&) = delete;
  MetadataCache& operator=(MetadataCache const&) = delete;

  // ---- queries --------------------------------------------------------------------------

  // The file's record, loading its parent folder if needed (without the cache lock);
  // null for the root, for a missing file and on error code 4. Does not trigger. Passes
  // on other failures.
  std::shared_ptr<FileMetadata> getFileMetadata(StorageIRI const& iri) const;
  // The folder's record from its parent's entry (the root's from its own entry), loading
  // as getFileMetadata does; null when missing and on error code 4.
  std::shared_ptr<FolderMetadata> getFolderMetadata(StorageIRI const& iri) const;
  // Trigger, then getFileMetadata / getFolderMetadata is non-null; error code 4 gives
  // false.
  bool hasFile(StorageIRI const& iri) const;
  bool hasFolder(StorageIRI const& iri) const;
  // Trigger; the folder's entry, created as a listing entry (not waited for) when it is
  // not cached; then the frozen snapshot is put back if an invalidation was queued.
  std::shared_ptr<IFolderEntry> getFolderContainer(StorageIRI const& iri) const;
  // Trigger; the folder's entry, loaded from the inner store and waited for (without the
  // cache lock); then the frozen snapshot is put back if an invalidation was queued.
  // Passes on the listing's failure (code 4 first drops the cached folder).
  std::shared_ptr<IFolderEntry> loadAndGetFolderContainer(StorageIRI const& iri) const;

  // Queries that a provider makes on every call, answered under one hold of the cache
  // lock from cached entries whose listing is complete, without loading or waiting.
  // For a key `iri` (an IRI already in key form, see CacheKey) the answer is what
  //   "every folder above `iri` except the root is known (getFolderMetadata non-null),
  //    checked nearest first; then getFileMetadata(iri)"
  // gives, with `trigger` preceded by triggerInvalidationProcess() as hasFile does: the
  // record, or null when a folder above or the item itself is not known. Nothing
  // (std::nullopt) when that answer would need a folder listed or waited for, when
  // `trigger` is set and invalidations are pending, or for an IRI not in key form:
  // the caller then asks the slow way, which gives the same answer. Never calls the
  // inner store; takes the cache lock, then entry locks.
  std::optional<std::shared_ptr<FileMetadata>> findFileBelowKnownFolders(StorageIRI const& iri, bool trigger) const;
  // The same for the folder record (getFolderMetadata(iri); the root's from its own entry).
  std::optional<std::shared_ptr<FolderMetadata>> findFolderBelowKnownFolders(StorageIRI const& iri,
                                                                             bool trigger) const;

  // ---- mutations (each: trigger, then the work under the cache lock) ----------------------

  // A new frozen file record at `iri`: last modified now (UTC), writable, size 0, and a
  // copy of the parent folder's extended attributes; the parent's entry is created when
  // missing and the parent folder is stamped with the new record's time.
  void createFileMetadata(StorageIRI const& iri) const;
  // A new frozen folder record, as for files, with a plain empty entry of its own (never
  // listed from the inner store).
  void createFolderMetadata(StorageIRI const& iri) const;
  // Adds a record made elsewhere (the parent is stamped with the record's time).
  void addFileMetadata(std::shared_ptr<FileMetadata> record) const;
  // Makes `record` the one its cached parent folder holds for the file, replacing another
  // record of the same file (the parent is not stamped). When the parent is not cached or
  // is still being listed, a frozen record is saved and replaces the listed one at the
  // next listing or lookup of the folder (as the records saved before an invalidation
  // are); an unfrozen one is then left to the store's listing.
  void putFileMetadata(std::shared_ptr<FileMetadata> const& record) const;
  // Drops the file from its cached parent (stamping the parent with the current time)
  // and forgets its frozen snapshot entry; nothing else when the parent is not cached.
  void removeFile(StorageIRI const& iri) const;
  // As removeFile, and drops the folder's own entry and those of all its descendants.
  void removeFolder(StorageIRI const& iri) const;
  // Replaces whatever is cached at `dst` by a new frozen record with the size, writable,
  // last modified and extended attributes (as a value) of the record at `src`; a move
  // then removes `src`. Throws Exception(DoesNotExist, src) before changing anything
  // when no file record is cached or loadable at `src`.
  void moveFile(StorageIRI const& src, StorageIRI const& dst) const;
  void copyFile(StorageIRI const& src, StorageIRI const& dst) const;
  // Moves the cached sub-tree of `src` under `dst`, breadth-first: a new frozen record
  // for `dst` (attributes of the source folder), and every child record re-parented,
  // frozen and added to the destination entry. With policy KeepExisting (4) a file
  // already at the destination stays and the same-named source child is left out; any
  // other policy replaces. The source folder and its cached sub-tree are dropped at the
  // end. Uncached source sub-folders are listed from the inner store on the way. Throws
  // Exception(DoesNotExist, src) before changing anything when the source has no record.
  void moveFolder(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy policy) const;

  // ---- invalidation, freezing, thawing -----------------------------------------------------

  // Empties the tree and the frozen snapshot, and ends a whole-tree population under way
  // (at its next entry); folders load on demand from then on.
  void invalidateAll();
  // Records that `iri` changed elsewhere; the work happens at later operations. Sets
  // "frozen re-add pending". Cheap; safe to call from an event thread.
  void enqueueInvalidationProcess(StorageIRI const& iri);
  // Records that the item `item` (a file or a folder) changed elsewhere, for the narrow
  // invalidation (see above): at later operations the listing of its folder and its own
  // listing are dropped, and with `below` every folder under it. Sets "frozen re-add
  // pending". Cheap; safe to call from an event thread.
  void enqueueItemInvalidation(StorageIRI const& item, bool below);
  // Thaws the file's record when its parent folder is cached (loading the record may
  // list the parent; the cache lock is released meanwhile), then forgets its snapshot
  // entry. Passes on failures of the lookup other than code 4; the snapshot entry then
  // stays.
  void thawFile(StorageIRI const& iri);
  // Thaws `record`, the record a close transaction has just put into the store, once a
  // listing of its folder that is under way has been built and the records saved before
  // it have been put back (all under one hold of the cache lock). A listing begun before
  // the store had the file would otherwise find the record thawed when it is put back,
  // discard it, and show the store's older state. Waits without the cache lock.
  void thawWritten(std::shared_ptr<FileMetadata> const& record) const;
  // Thaws the cached folder's record and, with `recursive`, every cached record below
  // it; forgets only the folder's own snapshot entry (those of the records below are
  // discarded when a re-add finds them thawed).
  void thawFolder(StorageIRI const& iri, bool recursive);

  // ---- whole-tree population and space ----------------------------------------------------

  // Nothing when the inner store lacks the recursive-listing feature (1). Otherwise,
  // unless `wait`, first loads the root folder (so it is usable at once), then starts
  // the population on a thread of its own; with `wait`, waits for it and passes on its
  // failure.
  void populateWholeFolderTreeWhenPossible(bool wait);
  // Told, on the population's thread, when the whole-tree listing failed (the cache then
  // lists folders on demand): the folder the store's error named, and the error. Set
  // before the first population; none by default.
  using ListingFailureObserver = std::function<void(StorageIRI const&, std::exception_ptr)>;
  void setListingFailureObserver(ListingFailureObserver observer) { listingFailureObserver_ = std::move(observer); }
  // Waits for a started population and passes on its failure; after the first call that
  // returned normally, later calls return at once.
  void waitForFuturePopulationToFinish();
  // Trigger; the size of the file's record (loading its parent if needed), 0 when there
  // is none.
  std::uint64_t getSpaceOccupiedByFile(StorageIRI const& iri) const;
  // The sum of the sizes of the cached files in the folder's cached sub-tree; 0 for a
  // folder that is not cached. Loads nothing. Does not trigger. Reads the entries'
  // children in place under the cache lock, copying nothing.
  std::uint64_t getSpaceOccupiedByFolder(StorageIRI const& iri) const;

  // ---- keys ---------------------------------------------------------------------------------

  // The key the cache files `iri` under: the free getInnerMostURL(iri), with the
  // shortcut of CacheKey for an IRI already in that form. Throws what getInnerMostURL
  // throws.
  static StorageIRI getInnerMostURL(StorageIRI const& iri);

  // ---- inspection, for tests and benchmarks ----------------------------------------------
  // Keys of the cached folders, in order.
  std::vector<StorageIRI> cachedFolders() const;

  // ---- for tests only ----------------------------------------------------------------
  // Never load and never trigger: the record as the cached parent entry (exact key)
  // holds it, asked case-sensitively for `iri` unchanged; null when the parent is not
  // cached. The root folder's record comes from its own entry. May still wait for a
  // listing that is in progress in that entry.
  std::shared_ptr<FileMetadata> getFileMetadataFromCache(StorageIRI const& iri) const;
  std::shared_ptr<FolderMetadata> getFolderMetadataFromCache(StorageIRI const& iri) const;

  // As addFileMetadata, for a folder's record: the folder gets a plain entry, or keeps
  // its existing entry, which then holds `record`.
  void addFolderMetadata(std::shared_ptr<FolderMetadata> record) const;

  // Drops the cached folder that lists `iri` (its parent; the root for the root), with
  // all its cached descendants. Frozen records are not saved first.
  void invalidateFolder(StorageIRI const& iri) const;

  // Saves every frozen record of the tree into the snapshot.
  void snapshotFrozenMetadata();
  // Saves the frozen records, then invalidates as invalidateFolder does. Does not set
  // "frozen re-add pending".
  void snapshotFrozenMetadataAndInvalidate(StorageIRI const& iri);

  // Waits for a started population, every time it is called.
  void doWaitForFuturePopulationToFinish();

  bool isCaseSensitive() const { return caseSensitive_; }
  // Keys of the frozen snapshot, in order.
  std::vector<StorageIRI> frozenSnapshot() const;
  // Pending invalidations, in the order they will be worked off.
  std::vector<StorageIRI> pendingInvalidations() const;

 private:
  ListingFailureObserver listingFailureObserver_;  // set before the first population; may be empty
  class CacheLock;
  struct FolderMove {
    StorageIRI source;
    StorageIRI destination;
    std::shared_ptr<FolderMetadata> record;
    fsp::ReplacementPolicy policy;
  };

  FolderMap::iterator getCacheIterator(StorageIRI const& key) const REQUIRES(guard_);
  // Every change of folders_ goes through these three, which keep folderIndex_ in step;
  // entries that leave are retired.
  void emplaceFolder(StorageIRI key, std::shared_ptr<IFolderEntry> const& entry) const REQUIRES(guard_);
  FolderMap::iterator eraseFolder(FolderMap::iterator it) const REQUIRES(guard_);
  // Erases the entry of `key` (if cached) and of every cached folder below it.
  void eraseTree(StorageIRI const& key) const REQUIRES(guard_);
  void clearFolders() const REQUIRES(guard_);
  std::shared_ptr<IFolderEntry> doGetFolderContainer(StorageIRI const& iri, bool create) const REQUIRES(guard_);
  std::shared_ptr<FileMetadata> doGetFileMetadataFromCache(StorageIRI const& iri) const REQUIRES(guard_);
  std::shared_ptr<FolderMetadata> doGetFolderMetadataFromCache(StorageIRI const& iri) const REQUIRES(guard_);
  void doAddFileMetadata(std::shared_ptr<FileMetadata> const& record, bool updateParent) const REQUIRES(guard_);
  void doAddFolderMetadata(std::shared_ptr<FolderMetadata> const& record, bool updateParent,
                           bool listFromBackend) const REQUIRES(guard_);
  void doRemoveFile(StorageIRI const& iri) const REQUIRES(guard_);
  void doRemoveFolder(StorageIRI const& iri) const REQUIRES(guard_);
  void doMoveOrCopyFile(StorageIRI const& src, StorageIRI const& dst, bool move) const REQUIRES(guard_);
  void updateParentLastModified(StorageIRI const& iri, boost::posix_time::ptime time) const REQUIRES(guard_);
  void addFolderContainer(std::shared_ptr<IFolderEntry> const& entry) const REQUIRES(guard_);
  void insertFolderEntry(StorageIRI const& iri, std::shared_ptr<IFolderEntry> const& entry) const REQUIRES(guard_);
  // One level of a folder move; sub-folders are queued on `queue`, and the sources to
  // drop once the whole sub-tree has moved are collected in `movedSources`.
  void moveFolderDetail(StorageIRI const& src, StorageIRI const& dst, std::shared_ptr<FolderMetadata> const& record,
                        fsp::ReplacementPolicy policy, std::deque<FolderMove>& queue,
                        std::vector<StorageIRI>& movedSources) const REQUIRES(guard_);
  // The folders an addition at `key` looks into: the parent (whose entry lists the new
  // record) and the grandparent (whose entry holds the parent's record and its time),
  // their entries created when missing.
  void foldersForAdding(StorageIRI const& key, std::vector<std::shared_ptr<IFolderEntry>>& entries) const
      REQUIRES(guard_);
  // The folders a removal at `key` looks into: the parent if cached, and then the
  // grandparent.
  void foldersForRemoving(StorageIRI const& key, std::vector<std::shared_ptr<IFolderEntry>>& entries) const
      REQUIRES(guard_);
  void doInvalidateFolder(StorageIRI const& iri) const REQUIRES(guard_);
  // Drops the listing of the folder `key` alone; cached folders below it stay.
  void doInvalidateListing(StorageIRI const& key) const REQUIRES(guard_);
  // The narrow invalidation of one pending item (see enqueueItemInvalidation).
  void doInvalidateItem(StorageIRI const& key, bool below) const REQUIRES(guard_);
  void doInvalidateAll() const REQUIRES(guard_);
  void triggerInvalidationProcess() const REQUIRES(guard_);
  void doSnapshotFrozenMetadata() const REQUIRES(guard_);
  void addFrozenEntries() const REQUIRES(guard_);
  // Forgets the saved record of `iri` and, with `recursive`, every saved record below it,
  // whether or not `iri` itself has one (records saved below a folder that is removed or
  // moved away must not be put back there; with records saved by putFileMetadata this
  // happens whenever a written file's folder is removed while it is being listed again).
  void removeFrozenMetadata(StorageIRI const& iri, bool recursive) const REQUIRES(guard_);
  void thawFolderImpl(StorageIRI const& iri, bool recursive) const REQUIRES(guard_);
  std::uint64_t doGetSpaceOccupiedByFolder(StorageIRI const& iri) const REQUIRES(guard_);
  // Moves `entry` to the entries destroyed once the cache lock is released.
  void retire(std::shared_ptr<IFolderEntry> entry) const REQUIRES(guard_);
  // The entry cached for the folder whose key has the text `text` (matched as
  // getCacheIterator matches), when it is there and not a listing still in progress;
  // else null.
  IFolderEntry* builtEntryAt(std::u16string_view text) const REQUIRES(guard_);
  template <class Record>
  std::optional<std::shared_ptr<Record>> findBelowKnownFolders(StorageIRI const& iri, bool trigger) const
      EXCLUDES(guard_);

  // Loads the folder's entry and waits for its listing.
  std::shared_ptr<IFolderEntry> doLoadAndGetFolderContainer(StorageIRI const& iri) const EXCLUDES(guard_);
  // doLoadAndGetFolderContainer of the parent of `key` (which has one); a key-form key's
  // parent is found by its text, without building the parent's IRI.
  std::shared_ptr<IFolderEntry> loadParentEntry(CacheKey const& key) const EXCLUDES(guard_);
  // Lists the folder at `key` (a key) into a fresh entry, waits for it, then inserts it
  // (an entry inserted meanwhile under that key is kept). Passes on the listing's failure.
  std::shared_ptr<IFolderEntry> loadFolderEntry(StorageIRI const& key) const EXCLUDES(guard_);
  // Waits for a cached entry that may still be listing; on error code 4 drops the folder
  // and its cached sub-tree, then passes the failure on.
  std::shared_ptr<IFolderEntry> awaitCachedEntry(std::shared_ptr<IFolderEntry> const& entry) const EXCLUDES(guard_);
  std::shared_ptr<FolderMetadata> doGetFolderMetadata(StorageIRI const& iri) const EXCLUDES(guard_);
  // Waits for the listings of the entries `resolve` picks under the cache lock.
  template <class Resolve>
  void awaitEntries(Resolve&& resolve) const EXCLUDES(guard_);
  // Waits for the listings of the cached sub-tree of `iri` (entries created for missing
  // sub-folders when `create`), level by level.
  void awaitSubtree(StorageIRI const& iri, bool create) const EXCLUDES(guard_);
  // Before a re-add of the frozen snapshot: waits for the listings of the folders that
  // the re-add looks into (their entries created when missing, as the re-add would).
  void awaitFrozenReAdd() const EXCLUDES(guard_);
  // The population task, on its own thread, and its walk over the listing.
  void populate(bool wait) EXCLUDES(guard_);
  class PopulationWalk;
  // Forgets the folders at or below `key` that the population is filling.
  void forgetFilling(StorageIRI const& key) const REQUIRES(guard_);

  std::shared_ptr<fsp::StorageItem> const inner_;
  bool const caseSensitive_;

  mutable Mutex guard_;  // the cache lock
  mutable FolderMap folders_ GUARDED_BY(guard_);
  // Exact and case-insensitive lookup in folders_.
  mutable LocationIndex<FolderMap> folderIndex_ GUARDED_BY(guard_){folders_};
  mutable FrozenRecords frozen_ GUARDED_BY(guard_);  // the frozen snapshot
  mutable std::set<StorageIRI> pending_ GUARDED_BY(guard_);
  // Items pending narrow invalidation, each with whether what lies below it goes too.
  mutable std::map<StorageIRI, bool> pendingItems_ GUARDED_BY(guard_);
  mutable std::vector<std::shared_ptr<IFolderEntry>> retired_ GUARDED_BY(guard_);
  // Folders the population is filling, by key: no reader sees them until they are
  // complete and move into folders_.
  mutable std::map<StorageIRI, std::shared_ptr<IFolderEntry>> filling_ GUARDED_BY(guard_);

  std::atomic<bool> stopping_{false};  // set by invalidateAll and the destructor: a running population ends

  // Last, so that it is destroyed first: the population's task uses the tree.
  TreePopulation population_;
};

}  // namespace storage::overlayprovider
