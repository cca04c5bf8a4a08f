#include <core/metadata/MetadataCache.hpp>

#include <core/metadata/CacheKey.hpp>
#include <core/metadata/FutureFolderEntry.hpp>
#include <core/util/Logger.hpp>

#include <foundation/log/Severity.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <algorithm>
#include <malloc.h>
#include <exception>
#include <optional>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <utility>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;
using fsp::ErrorCode;
using fsp::Exception;

constexpr char const* kRecursiveListingFailure =
    "Couldn't read file/folder metadata during a backend folder "
    "recursive listing operation. This is possibly due to a bad filename "
    "(g2635196).";

// The store's whole-tree listing is as large as the cache it fills, and once read it is
// dropped; the allocator would keep its pages for later use, so the process would stay
// that much larger for good. They are handed back to the system instead.
void handBackFreeMemory() {
#if defined(__GLIBC__)
  ::malloc_trim(0);
#endif
}

boost::posix_time::ptime nowUtc() { return boost::posix_time::microsec_clock::universal_time(); }

bool doesNotExist(Exception const& e) { return e.getErrorCode() == ErrorCode::DoesNotExist; }

// Waits, without any cache lock, until a listing entry's content can be read. True when
// the entry's children may be read now (a plain entry, a finished build, or a listing
// that succeeded). A failed listing is left for the first reader of the entry.
bool awaitEntry(std::shared_ptr<IFolderEntry> const& entry) {
  auto const* listing = dynamic_cast<FutureFolderEntry const*>(entry.get());
  if (listing == nullptr || listing->isBuilt()) return true;
  return listing->awaitListing();
}

bool isUnbuiltListing(std::shared_ptr<IFolderEntry> const& entry) {
  auto const* listing = dynamic_cast<FutureFolderEntry const*>(entry.get());
  return listing != nullptr && !listing->isBuilt();
}

}  // namespace

fsp::StorageIRI MetadataCache::getInnerMostURL(StorageIRI const& iri) { return CacheKey::getInnerMostURL(iri); }

// Takes the cache lock; entries retired while it was held are destroyed after it is
// released (destroying a listing entry waits for its listing).
class SCOPED_CAPABILITY MetadataCache::CacheLock {
 public:
  explicit CacheLock(MetadataCache const& cache) ACQUIRE(cache.guard_) : cache_(cache), lock_(cache.guard_) {}
  ~CacheLock() RELEASE() { unlock(); }
  CacheLock(CacheLock const&) = delete;
  CacheLock& operator=(CacheLock const&) = delete;

  void lock() ACQUIRE() { lock_.lock(); }
  void unlock() RELEASE() {
    if (!lock_.native().owns_lock()) return;
    std::vector<std::shared_ptr<IFolderEntry>> retired;
    retired.swap(cache_.retired_);
    lock_.unlock();
  }

 private:
  MetadataCache const& cache_;
  UniqueLock lock_;
};

MetadataCache::MetadataCache(std::shared_ptr<fsp::StorageItem> inner, bool caseSensitive)
    : inner_(std::move(inner)), caseSensitive_(caseSensitive) {}

MetadataCache::~MetadataCache() {
  stopping_.store(true, std::memory_order_relaxed);  // a population under way ends at its next entry
  population_.finish();
}

void MetadataCache::retire(std::shared_ptr<IFolderEntry> entry) const { retired_.push_back(std::move(entry)); }

// ---- finding and creating entries ----------------------------------------------------------

MetadataCache::FolderMap::iterator MetadataCache::getCacheIterator(StorageIRI const& key) const {
  return caseSensitive_ ? folderIndex_.findExact(key) : folderIndex_.findFolded(key);
}

void MetadataCache::emplaceFolder(StorageIRI key, std::shared_ptr<IFolderEntry> const& entry) const {
  auto const [it, inserted] = folders_.emplace(std::move(key), entry);
  if (inserted) folderIndex_.inserted(it);
}

MetadataCache::FolderMap::iterator MetadataCache::eraseFolder(FolderMap::iterator it) const {
  retire(std::move(it->second));
  folderIndex_.erasing(it);
  return folders_.erase(it);
}

void MetadataCache::clearFolders() const {
  for (auto& [key, entry] : folders_) retire(std::move(entry));
  folderIndex_.cleared();
  folders_.clear();
  filling_.clear();
}

void MetadataCache::forgetFilling(StorageIRI const& key) const {
  std::u16string_view const text = key.toString();
  for (auto it = filling_.lower_bound(key);
       it != filling_.end() && std::u16string_view(it->first.toString()).substr(0, text.size()) == text;) {
    if (it->first == key || key.isAncestorOf(it->first)) {
      it = filling_.erase(it);
    } else {
      ++it;
    }
  }
}

std::shared_ptr<IFolderEntry> MetadataCache::doGetFolderContainer(StorageIRI const& iri, bool create) const {
  auto const key = getInnerMostURL(iri);
  auto it = getCacheIterator(key);
  if (it != folders_.end()) return it->second;
  if (!create) return nullptr;
  std::shared_ptr<IFolderEntry> entry = std::make_shared<FutureFolderEntry>(key, inner_);
  emplaceFolder(key, entry);
  return entry;
}

void MetadataCache::insertFolderEntry(StorageIRI const& iri, std::shared_ptr<IFolderEntry> const& entry) const {
  emplaceFolder(getInnerMostURL(iri), entry);
}

std::shared_ptr<IFolderEntry> MetadataCache::doLoadAndGetFolderContainer(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  std::shared_ptr<IFolderEntry> entry;
  {
    CacheLock lock(*this);
    auto it = getCacheIterator(key);
    if (it != folders_.end()) entry = it->second;
  }
  return entry ? awaitCachedEntry(entry) : loadFolderEntry(key);
}

std::shared_ptr<IFolderEntry> MetadataCache::loadParentEntry(CacheKey const& key) const {
  if (!key.plain()) return doLoadAndGetFolderContainer(key.get().getParent());
  // The parent is found by its text, without building its IRI.
  auto const parent = CacheKey::parentTextOf(key.get());
  std::shared_ptr<IFolderEntry> entry;
  {
    CacheLock lock(*this);
    auto it = caseSensitive_ ? folderIndex_.findExact(parent) : folderIndex_.findFolded(parent);
    if (it != folders_.end()) entry = it->second;
  }
  return entry ? awaitCachedEntry(entry) : loadFolderEntry(key.get().getParent());
}

std::shared_ptr<IFolderEntry> MetadataCache::loadFolderEntry(StorageIRI const& key) const {
  auto fresh = std::make_shared<FutureFolderEntry>(key, inner_);
  fresh->getMetadata();  // waits for the listing; its failure goes to the caller
  CacheLock lock(*this);
  insertFolderEntry(key, fresh);
  return fresh;
}

std::shared_ptr<IFolderEntry> MetadataCache::awaitCachedEntry(std::shared_ptr<IFolderEntry> const& entry) const {
  // A plain entry, or a listing entry built already, has nothing to wait for and no
  // failure to pass on.
  if (!isUnbuiltListing(entry)) return entry;
  try {
    entry->getMetadata();  // waits if the entry is still listing
  } catch (Exception const& e) {
    if (doesNotExist(e)) {
      // The folder vanished on the inner side: forget it and what was cached below it.
      CacheLock lock(*this);
      doInvalidateFolder(entry->getLocation());
    }
    throw;
  }
  return entry;
}

template <class Resolve>
void MetadataCache::awaitEntries(Resolve&& resolve) const {
  std::vector<std::shared_ptr<IFolderEntry>> entries;
  {
    CacheLock lock(*this);
    resolve(entries);
  }
  for (auto const& entry : entries) {
    if (entry) awaitEntry(entry);
  }
}

void MetadataCache::awaitSubtree(StorageIRI const& iri, bool create) const {
  std::deque<StorageIRI> folders{iri};
  while (!folders.empty()) {
    StorageIRI const folder = std::move(folders.front());
    folders.pop_front();
    std::shared_ptr<IFolderEntry> entry;
    {
      CacheLock lock(*this);
      entry = doGetFolderContainer(folder, create);
    }
    if (!entry || !awaitEntry(entry)) continue;
    // Entries change only under the cache lock: under it, the children are read in place
    // rather than copied (a folder of many files would otherwise be copied whole).
    CacheLock lock(*this);
    for (auto it = entry->begin(), end = entry->end(); it != end; ++it) {
      if (it->index() == 1) folders.push_back(std::get<1>(*it)->getLocation());
    }
  }
}

void MetadataCache::awaitFrozenReAdd() const {
  awaitEntries([this](std::vector<std::shared_ptr<IFolderEntry>>& entries) REQUIRES(guard_) {
    if (!frozen_.isReAddDue()) return;
    for (auto const& [key, record] : frozen_.records()) {
      bool const frozen = record.index() == 0 ? std::get<0>(record)->isFrozen() : std::get<1>(record)->isFrozen();
      if (!frozen || !key.hasParent()) continue;  // a thawed record is discarded unseen
      auto const parent = key.getParent();
      bool const parentCached = folders_.count(parent) != 0;
      entries.push_back(doGetFolderContainer(parent, true));
      // Without its parent the record is surely re-added, which stamps the grandparent.
      if (!parentCached && parent.hasParent()) entries.push_back(doGetFolderContainer(parent.getParent(), true));
    }
  });
}

// ---- queries ----------------------------------------------------------------------------------

std::shared_ptr<FileMetadata> MetadataCache::getFileMetadata(StorageIRI const& iri) const {
  try {
    CacheKey const key(iri);
    if (!key.get().hasParent()) return nullptr;
    auto entry = loadParentEntry(key);
    return entry->getFileMetadata(key.get(), caseSensitive_);
  } catch (Exception const& e) {
    if (doesNotExist(e)) return nullptr;
    throw;
  }
}

std::shared_ptr<FolderMetadata> MetadataCache::doGetFolderMetadata(StorageIRI const& iri) const {
  try {
    CacheKey const key(iri);
    if (key.get().hasParent()) {
      auto entry = loadParentEntry(key);
      return entry->getFolderMetadata(key.get(), caseSensitive_);
    }
    return doLoadAndGetFolderContainer(key.get())->getMetadata();
  } catch (Exception const& e) {
    if (doesNotExist(e)) return nullptr;
    throw;
  }
}

std::shared_ptr<FolderMetadata> MetadataCache::getFolderMetadata(StorageIRI const& iri) const {
  return doGetFolderMetadata(iri);
}

bool MetadataCache::hasFile(StorageIRI const& iri) const {
  {
    CacheLock lock(*this);
    triggerInvalidationProcess();
  }
  try {
    return getFileMetadata(iri) != nullptr;
  } catch (Exception const& e) {
    if (doesNotExist(e)) return false;
    throw;
  }
}

bool MetadataCache::hasFolder(StorageIRI const& iri) const {
  {
    CacheLock lock(*this);
    triggerInvalidationProcess();
  }
  try {
    return getFolderMetadata(iri) != nullptr;
  } catch (Exception const& e) {
    if (doesNotExist(e)) return false;
    throw;
  }
}

std::shared_ptr<FileMetadata> MetadataCache::doGetFileMetadataFromCache(StorageIRI const& iri) const {
  if (!iri.hasParent()) return nullptr;
  auto it = folderIndex_.findExact(getInnerMostURL(iri.getParent()));
  if (it == folders_.end()) return nullptr;
  return it->second->getFileMetadata(iri, true);
}

std::shared_ptr<FolderMetadata> MetadataCache::doGetFolderMetadataFromCache(StorageIRI const& iri) const {
  if (!iri.hasParent()) {
    // The root is listed by no parent; its record is its own entry's.
    auto it = folderIndex_.findExact(getInnerMostURL(iri));
    return it == folders_.end() ? nullptr : it->second->getMetadata();
  }
  auto it = folderIndex_.findExact(getInnerMostURL(iri.getParent()));
  if (it == folders_.end()) return nullptr;
  return it->second->getFolderMetadata(iri, true);
}

std::shared_ptr<FileMetadata> MetadataCache::getFileMetadataFromCache(StorageIRI const& iri) const {
  CacheLock lock(*this);
  return doGetFileMetadataFromCache(iri);
}

std::shared_ptr<FolderMetadata> MetadataCache::getFolderMetadataFromCache(StorageIRI const& iri) const {
  CacheLock lock(*this);
  return doGetFolderMetadataFromCache(iri);
}

// ---- queries answered from built entries alone -------------------------------------------

IFolderEntry* MetadataCache::builtEntryAt(std::u16string_view text) const {
  auto it = caseSensitive_ ? folderIndex_.findExact(text) : folderIndex_.findFolded(text);
  if (it == folders_.end() || isUnbuiltListing(it->second)) return nullptr;
  return it->second.get();
}

template <class Record>
std::optional<std::shared_ptr<Record>> MetadataCache::findBelowKnownFolders(StorageIRI const& iri,
                                                                           bool trigger) const {
  constexpr bool kFile = std::is_same_v<Record, FileMetadata>;
  if (!CacheKey::isKeyForm(iri)) return std::nullopt;
  CacheLock lock(*this);
  // triggerInvalidationProcess() would change the tree first: the slow way does that.
  if (trigger && (!pending_.empty() || !pendingItems_.empty())) return std::nullopt;
  if (!iri.hasParent()) {
    if constexpr (kFile) {
      return std::shared_ptr<FileMetadata>();  // the root is no file
    } else {
      IFolderEntry* const root = builtEntryAt(iri.toString());
      if (root == nullptr) return std::nullopt;
      return root->getMetadata();
    }
  }
  // Every folder above, nearest first, as far as (not including) the root: each must be
  // known to the entry of its own parent, which must be cached and built. The folders
  // of a key are keys whose texts are prefixes of the key's text.
  std::u16string_view const text = iri.toString();
  std::size_t const pathStart = text.size() - iri.getPath().size();
  std::u16string_view folder = CacheKey::parentTextOf(text, pathStart);
  while (folder.size() > pathStart + 1) {
    std::u16string_view const above = CacheKey::parentTextOf(folder, pathStart);
    IFolderEntry* const parent = builtEntryAt(above);
    if (parent == nullptr) return std::nullopt;
    if (!parent->getFolderMetadata(folder, caseSensitive_)) return std::shared_ptr<Record>();
    folder = above;
  }
  IFolderEntry* const parent = builtEntryAt(CacheKey::parentTextOf(text, pathStart));
  if (parent == nullptr) return std::nullopt;
  if constexpr (kFile) {
    return parent->getFileMetadata(text, caseSensitive_);
  } else {
    return parent->getFolderMetadata(text, caseSensitive_);
  }
}

std::optional<std::shared_ptr<FileMetadata>> MetadataCache::findFileBelowKnownFolders(StorageIRI const& iri,
                                                                                      bool trigger) const {
  return findBelowKnownFolders<FileMetadata>(iri, trigger);
}

std::optional<std::shared_ptr<FolderMetadata>> MetadataCache::findFolderBelowKnownFolders(StorageIRI const& iri,
                                                                                          bool trigger) const {
  return findBelowKnownFolders<FolderMetadata>(iri, trigger);
}

std::shared_ptr<IFolderEntry> MetadataCache::getFolderContainer(StorageIRI const& iri) const {
  std::shared_ptr<IFolderEntry> entry;
  {
    CacheLock lock(*this);
    triggerInvalidationProcess();
    entry = doGetFolderContainer(iri, true);
  }
  // The re-add looks into the folders of the saved records; their listings are waited
  // for here, without the cache lock.
  awaitFrozenReAdd();
  CacheLock lock(*this);
  addFrozenEntries();
  return entry;
}

std::shared_ptr<IFolderEntry> MetadataCache::loadAndGetFolderContainer(StorageIRI const& iri) const {
  {
    CacheLock lock(*this);
    triggerInvalidationProcess();
  }
  auto entry = doLoadAndGetFolderContainer(iri);
  awaitFrozenReAdd();
  CacheLock lock(*this);
  addFrozenEntries();
  return entry;
}

// ---- adding -----------------------------------------------------------------------------------

void MetadataCache::updateParentLastModified(StorageIRI const& iri, boost::posix_time::ptime time) const {
  if (!iri.hasParent()) return;
  auto const parent = iri.getParent();
  if (!parent.hasParent()) return;  // the root is listed by no entry
  auto entry = doGetFolderContainer(parent.getParent(), true);
  if (auto record = entry->getFolderMetadata(parent, true)) record->withLastModified(time);
}

void MetadataCache::doAddFileMetadata(std::shared_ptr<FileMetadata> const& record, bool updateParent) const {
  auto const location = record->getLocation();
  if (!location.hasParent()) return;  // the root is a folder
  if (updateParent) updateParentLastModified(location, record->getLastModified());
  auto entry = doGetFolderContainer(location.getParent(), true);
  entry->addFileMetadata(record, updateParent);
}

void MetadataCache::doAddFolderMetadata(std::shared_ptr<FolderMetadata> const& record, bool updateParent,
                                        bool listFromBackend) const {
  auto const location = record->getLocation();
  auto it = folderIndex_.findExact(getInnerMostURL(location));
  if (it != folders_.end()) {
    it->second->withMetadata(record);
  } else {
    std::shared_ptr<IFolderEntry> entry;
    if (listFromBackend) {
      entry = std::make_shared<FutureFolderEntry>(location, inner_);
    } else {
      entry = std::make_shared<IFolderEntry>(location);
    }
    entry->withMetadata(record);
    insertFolderEntry(location, entry);
  }
  if (!location.hasParent()) return;
  if (updateParent) updateParentLastModified(location, record->getLastModified());
  auto parentEntry = doGetFolderContainer(location.getParent(), true);
  parentEntry->addFolderMetadata(record, updateParent);
}

void MetadataCache::addFolderContainer(std::shared_ptr<IFolderEntry> const& entry) const {
  auto const meta = entry->getMetadata();
  auto const location = entry->getLocation();
  auto const time = meta->getLastModified();
  auto parentEntry = doGetFolderContainer(location.getParent(), true);
  insertFolderEntry(location, entry);
  if (auto parentRecord = parentEntry->getMetadata()) parentRecord->withLastModified(time);
  parentEntry->addFolderMetadata(meta, true);
  updateParentLastModified(location, time);
}

// ---- removing ---------------------------------------------------------------------------------

void MetadataCache::doRemoveFile(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  if (!key.hasParent()) return;
  auto entry = doGetFolderContainer(key.getParent(), false);
  if (!entry) {
    // A folder the population is filling would bring the file back.
    forgetFilling(key.getParent());
    return;
  }
  entry->removeFileMetadata(key, caseSensitive_);
  if (auto parentRecord = entry->getMetadata()) updateParentLastModified(key, parentRecord->getLastModified());
}

void MetadataCache::doRemoveFolder(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  if (key.hasParent()) {
    if (auto entry = doGetFolderContainer(key.getParent(), false)) {
      entry->removeFolderMetadata(key, caseSensitive_);
      if (auto parentRecord = entry->getMetadata()) updateParentLastModified(key, parentRecord->getLastModified());
    } else {
      forgetFilling(key.getParent());  // it would bring the folder back
    }
  }
  doInvalidateFolder(key);
}

// ---- mutations ------------------------------------------------------------------------------

void MetadataCache::foldersForAdding(StorageIRI const& key, std::vector<std::shared_ptr<IFolderEntry>>& entries) const {
  if (!key.hasParent()) return;
  auto const parent = key.getParent();
  entries.push_back(doGetFolderContainer(parent, true));
  if (parent.hasParent()) entries.push_back(doGetFolderContainer(parent.getParent(), true));
}

void MetadataCache::foldersForRemoving(StorageIRI const& key,
                                       std::vector<std::shared_ptr<IFolderEntry>>& entries) const {
  if (!key.hasParent()) return;
  auto const parent = key.getParent();
  auto entry = doGetFolderContainer(parent, false);
  if (!entry) return;
  entries.push_back(entry);
  if (parent.hasParent()) entries.push_back(doGetFolderContainer(parent.getParent(), true));
}

void MetadataCache::createFileMetadata(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  awaitEntries([&](auto& entries) REQUIRES(guard_) { foldersForAdding(key, entries); });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  auto record = std::make_shared<FileMetadata>(key, true);
  record->withLastModified(nowUtc()).withWritable(true).withSize(0);
  if (key.hasParent()) {
    auto parentEntry = doGetFolderContainer(key.getParent(), true);
    if (auto parentRecord = parentEntry->getMetadata()) {
      record->withExtendedAttributes(parentRecord->getExtendedAttributes());
    }
  }
  doAddFileMetadata(record, true);
}

void MetadataCache::createFolderMetadata(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  awaitEntries([&](auto& entries) REQUIRES(guard_) { foldersForAdding(key, entries); });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  auto record = std::make_shared<FolderMetadata>(key, true);
  record->withLastModified(nowUtc()).withWritable(true);
  if (key.hasParent()) {
    auto parentEntry = doGetFolderContainer(key.getParent(), true);
    if (auto parentRecord = parentEntry->getMetadata()) {
      record->withExtendedAttributes(parentRecord->getExtendedAttributes());
    }
  }
  doAddFolderMetadata(record, true, false);
}

void MetadataCache::addFileMetadata(std::shared_ptr<FileMetadata> record) const {
  auto const key = record->getLocation();
  awaitEntries([&](auto& entries) REQUIRES(guard_) { foldersForAdding(key, entries); });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  doAddFileMetadata(record, true);
}

void MetadataCache::putFileMetadata(std::shared_ptr<FileMetadata> const& record) const {
  auto const key = getInnerMostURL(record->getLocation());
  if (!key.hasParent()) return;
  CacheLock lock(*this);
  auto parent = folderIndex_.findExact(getInnerMostURL(key.getParent()));
  if (parent == folders_.end() || isUnbuiltListing(parent->second)) {
    // The folder was dropped or is being listed again: what the store lists must not win
    // over this record while it is frozen, so it is set aside (over an older one saved for
    // the same file) and put in once the listing is there.
    if (record->isFrozen()) {
      frozen_.saveOver(key, record);
    }
    return;
  }
  if (parent->second->getFileMetadata(key, true) == record) return;
  parent->second->removeFileMetadata(key, true);
  parent->second->addFileMetadata(record, false);
}

void MetadataCache::addFolderMetadata(std::shared_ptr<FolderMetadata> record) const {
  auto const key = record->getLocation();
  awaitEntries([&](auto& entries) REQUIRES(guard_) { foldersForAdding(key, entries); });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  doAddFolderMetadata(record, true, false);
}

void MetadataCache::removeFile(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  awaitEntries([&](auto& entries) REQUIRES(guard_) { foldersForRemoving(key, entries); });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  doRemoveFile(iri);
  removeFrozenMetadata(iri, true);
}

void MetadataCache::removeFolder(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  awaitEntries([&](auto& entries) REQUIRES(guard_) { foldersForRemoving(key, entries); });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  doRemoveFolder(iri);
  removeFrozenMetadata(iri, true);
}

void MetadataCache::doMoveOrCopyFile(StorageIRI const& src, StorageIRI const& dst, bool move) const {
  auto const s = getInnerMostURL(src);
  auto const d = getInnerMostURL(dst);
  // The source is looked up before anything changes, so that a missing source leaves
  // the tree as it was.
  std::shared_ptr<FileMetadata> source;
  if (s.hasParent()) source = doGetFolderContainer(s.getParent(), true)->getFileMetadata(s, true);
  if (!source || !d.hasParent()) throw Exception(ErrorCode::DoesNotExist, source ? dst : src);

  doRemoveFile(d);
  removeFrozenMetadata(d, false);
  auto record = std::make_shared<FileMetadata>(d, true);
  record->withSize(source->getFileSize())
      .withWritable(source->isWritable())
      .withLastModified(source->getLastModified())
      .withExtendedAttributes(source->getExtendedAttributes());
  doAddFileMetadata(record, true);
  if (move) {
    doRemoveFile(s);
    removeFrozenMetadata(s, true);
  }
}

void MetadataCache::moveFile(StorageIRI const& src, StorageIRI const& dst) const {
  auto const s = getInnerMostURL(src);
  auto const d = getInnerMostURL(dst);
  awaitEntries([&](auto& entries) REQUIRES(guard_) {
    foldersForAdding(s, entries);
    foldersForAdding(d, entries);
  });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  doMoveOrCopyFile(src, dst, true);
}

void MetadataCache::copyFile(StorageIRI const& src, StorageIRI const& dst) const {
  auto const s = getInnerMostURL(src);
  auto const d = getInnerMostURL(dst);
  awaitEntries([&](auto& entries) REQUIRES(guard_) {
    if (s.hasParent()) entries.push_back(doGetFolderContainer(s.getParent(), true));
    foldersForAdding(d, entries);
  });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  doMoveOrCopyFile(src, dst, false);
}

void MetadataCache::moveFolder(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy policy) const {
  auto const s = getInnerMostURL(src);
  auto const d = getInnerMostURL(dst);
  // The whole source sub-tree is listed (as the move itself would) and the destination's
  // cached entries are waited for before the cache lock is taken.
  awaitSubtree(s, true);
  awaitSubtree(d, false);
  awaitEntries([&](auto& entries) REQUIRES(guard_) {
    // A new destination entry is registered with its parent and grandparent; a new
    // sub-folder entry stamps its grandparent, which is the destination's parent at the
    // first level.
    if (folders_.count(d) == 0) {
      foldersForAdding(d, entries);
    } else if (d.hasParent()) {
      auto source = doGetFolderContainer(s, false);
      bool hasSubFolders = false;
      if (source && !isUnbuiltListing(source)) {
        for (auto const& child : source->getAllContent()) hasSubFolders |= child.index() == 1;
      }
      if (hasSubFolders) entries.push_back(doGetFolderContainer(d.getParent(), true));
    }
    foldersForRemoving(s, entries);
  });

  CacheLock lock(*this);
  triggerInvalidationProcess();
  // What the population would fill at the destination is the store's old content there.
  forgetFilling(d);
  auto const source = doGetFolderContainer(s, true)->getMetadata();
  if (!source) throw Exception(ErrorCode::DoesNotExist, src);
  auto record = std::make_shared<FolderMetadata>(d, true);
  record->withWritable(source->isWritable())
      .withLastModified(source->getLastModified())
      .withExtendedAttributes(source->getExtendedAttributes());

  std::deque<FolderMove> queue;
  std::vector<StorageIRI> movedSources;
  moveFolderDetail(s, d, record, policy, queue, movedSources);
  // Breadth-first: each level queues the sub-folders of the next one.
  while (!queue.empty()) {
    FolderMove next = std::move(queue.front());
    queue.pop_front();
    moveFolderDetail(next.source, next.destination, next.record, next.policy, queue, movedSources);
  }
  // The old folders go only once the whole sub-tree has moved, so that the walk never
  // meets a folder that it dropped itself; the deepest go first, the source itself last.
  for (auto it = movedSources.rbegin(); it != movedSources.rend(); ++it) {
    doRemoveFolder(*it);
    removeFrozenMetadata(*it, true);
  }
}

void MetadataCache::moveFolderDetail(StorageIRI const& src, StorageIRI const& dst,
                                     std::shared_ptr<FolderMetadata> const& record, fsp::ReplacementPolicy policy,
                                     std::deque<FolderMove>& queue, std::vector<StorageIRI>& movedSources) const {
  std::shared_ptr<IFolderEntry> destination;
  bool made = false;
  if (auto it = folderIndex_.findExact(dst); it != folders_.end()) {
    destination = it->second;
  } else {
    destination = std::make_shared<IFolderEntry>(dst);
    made = true;
  }
  destination->withMetadata(record);

  auto source = doGetFolderContainer(src, true);
  bool const keepExisting = static_cast<int>(policy) == 4;
  for (auto const& child : source->getAllContent()) {
    StorageIRI const target(dst, nameOf(child));
    if (keepExisting && destination->hasFileMetadata(target)) continue;
    destination->removeFileMetadata(target, true);
    removeFrozenMetadata(target, true);
    auto const oldLocation = std::visit(GetLocationVisitor(), child);
    std::visit(SetParentVisitor(dst), child);
    std::visit(FreezeMetadataVisitor(), child);
    std::visit(AddFileOrFolderVisitor(*destination), child);
    if (child.index() == 1) queue.push_back(FolderMove{oldLocation, target, std::get<1>(child), policy});
  }
  if (made) addFolderContainer(destination);
  movedSources.push_back(src);
}

// ---- invalidation ---------------------------------------------------------------------------

void MetadataCache::doInvalidateFolder(StorageIRI const& iri) const {
  if (iri.getPath() == u"/") {
    getLogger().log(Severity::Info, "Invalidating root.");
    clearFolders();
    return;
  }
  // What the population is filling there may be stale too; no one has seen it yet.
  forgetFilling(iri);
  auto it = folderIndex_.findExact(iri);
  // A folder that was never loaded has nothing stale of its own; its cached
  // descendants stay.
  if (it == folders_.end()) return;
  eraseTree(iri);
}

void MetadataCache::eraseTree(StorageIRI const& key) const {
  for (auto it = folders_.begin(); it != folders_.end();) {
    if (it->first == key || key.isAncestorOf(it->first)) {
      it = eraseFolder(it);
    } else {
      ++it;
    }
  }
}

void MetadataCache::doInvalidateListing(StorageIRI const& key) const {
  // What the population is filling there was listed before the change.
  forgetFilling(key);
  auto it = folderIndex_.findExact(key);
  if (it != folders_.end()) eraseFolder(it);
}

void MetadataCache::doInvalidateItem(StorageIRI const& key, bool below) const {
  if (key.hasParent()) doInvalidateListing(key.getParent());
  if (!below) {
    doInvalidateListing(key);
    return;
  }
  if (key.getPath() == u"/") {
    getLogger().log(Severity::Info, "Invalidating root.");
    clearFolders();
    return;
  }
  // The folder and everything below it, also below a folder of it that was not cached.
  forgetFilling(key);
  eraseTree(key);
}

void MetadataCache::doInvalidateAll() const {
  clearFolders();
  frozen_.clear();
}

void MetadataCache::invalidateFolder(StorageIRI const& iri) const {
  auto const key = getInnerMostURL(iri);
  CacheLock lock(*this);
  doInvalidateFolder(key.hasParent() ? key.getParent() : key);
}

void MetadataCache::invalidateAll() {
  // What a population under way would still add is the store's state from before: it
  // ends at its next entry, and folders load on demand from here on.
  stopping_.store(true, std::memory_order_relaxed);
  CacheLock lock(*this);
  doInvalidateAll();
}

void MetadataCache::enqueueInvalidationProcess(StorageIRI const& iri) {
  auto key = getInnerMostURL(iri);
  CacheLock lock(*this);
  pending_.insert(std::move(key));
  frozen_.setReAddDue();
}

void MetadataCache::enqueueItemInvalidation(StorageIRI const& item, bool below) {
  auto key = getInnerMostURL(item);
  CacheLock lock(*this);
  auto [it, added] = pendingItems_.try_emplace(std::move(key), below);
  if (!added) it->second = it->second || below;
  frozen_.setReAddDue();
}

void MetadataCache::triggerInvalidationProcess() const {
  if (!pendingItems_.empty()) {
    // Each drops at most a few listings: all of them at once.
    doSnapshotFrozenMetadata();
    auto items = std::move(pendingItems_);
    pendingItems_.clear();
    for (auto const& [key, below] : items) doInvalidateItem(key, below);
  }
  while (!pending_.empty()) {
    StorageIRI const next = *pending_.begin();
    pending_.erase(pending_.begin());
    doSnapshotFrozenMetadata();
    if (next.hasParent()) {
      // One parent per operation: the rest wait for the next operations.
      doInvalidateFolder(next.getParent());
      return;
    }
    doInvalidateFolder(next);
  }
}

void MetadataCache::doSnapshotFrozenMetadata() const {
  bool const logging = getLogger().isEnabled(Severity::Debug);
  for (auto const& [key, entry] : folders_) {
    if (isUnbuiltListing(entry)) {
      // Still listing: its children are the inner store's (never frozen, since nothing
      // is added to an entry before its listing is done), and its own record may only
      // have been given to it; neither is waited for here.
      auto const metadata = entry->peekMetadata();
      if (metadata && metadata->isFrozen()) frozen_.save(key, metadata);
      continue;
    }
    try {
      auto const metadata = entry->getMetadata();
      if (metadata && metadata->isFrozen()) frozen_.save(key, metadata);
      for (auto const& child : entry->getAllContent()) {
        if (child.index() != 0) continue;
        auto const& file = std::get<0>(child);
        if (file->isFrozen()) {
          auto const location = file->getLocation();
          if (logging) getLogger().log(Severity::Debug, location.toUtf8() + " is frozen.");
          frozen_.save(location, child);
        } else if (logging) {
          getLogger().log(Severity::Debug, file->getLocation().toUtf8() + " is not frozen.");
        }
      }
    } catch (...) {
      // An entry whose listing failed holds nothing of the overlay's own.
      getLogger().log(Severity::Diagnostic, "Exception caught: " + describeCurrentException());
    }
  }
}

void MetadataCache::snapshotFrozenMetadata() {
  CacheLock lock(*this);
  doSnapshotFrozenMetadata();
}

void MetadataCache::snapshotFrozenMetadataAndInvalidate(StorageIRI const& iri) {
  auto const key = getInnerMostURL(iri);
  CacheLock lock(*this);
  doSnapshotFrozenMetadata();
  doInvalidateFolder(key.hasParent() ? key.getParent() : key);
}

void MetadataCache::addFrozenEntries() const {
  if (!frozen_.takeReAddDue()) return;
  for (auto const& [key, saved] : frozen_.records()) {
    bool present = false;
    try {
      if (saved.index() == 1) {
        present = doGetFolderMetadataFromCache(key) != nullptr;
      } else if (auto const listed = doGetFileMetadataFromCache(key)) {
        present = true;
        auto const& file = std::get<0>(saved);
        if (listed != file && file->isFrozen() && getInnerMostURL(file->getLocation()) == key) {
          // The store listed the file, but a change of the overlay's own (a write still
          // on its way) is newer than what the store has: the local record stays, so
          // that the file's content entry, which shares it, is not taken for stale.
          auto parent = folderIndex_.findExact(getInnerMostURL(key.getParent()));
          if (parent != folders_.end()) {
            parent->second->removeFileMetadata(key, true);
            parent->second->addFileMetadata(file, false);
          }
        }
      }
    } catch (...) {
      getLogger().log(Severity::Diagnostic, "Exception caught: " + describeCurrentException());
      present = false;
    }
    if (present) continue;
    if (saved.index() == 1) {
      auto const& folder = std::get<1>(saved);
      if (folder->isFrozen()) doAddFolderMetadata(folder, true, false);
    } else {
      auto const& file = std::get<0>(saved);
      // A record moved since it was saved (a folder move re-parents the records it
      // carries) is no longer this key's.
      if (file->isFrozen() && getInnerMostURL(file->getLocation()) == key) doAddFileMetadata(file, true);
    }
  }
  frozen_.clear();
}

void MetadataCache::removeFrozenMetadata(StorageIRI const& iri, bool recursive) const {
  frozen_.forget(getInnerMostURL(iri), recursive);
}

void MetadataCache::thawFile(StorageIRI const& iri) {
  auto const key = getInnerMostURL(iri);
  CacheLock lock(*this);
  if (key.hasParent() && folders_.count(key.getParent()) != 0) {
    // The lookup may list the parent; it runs without the cache lock.
    lock.unlock();
    if (auto record = getFileMetadata(iri)) record->thaw();
    lock.lock();
  }
  removeFrozenMetadata(iri, true);
}

void MetadataCache::thawWritten(std::shared_ptr<FileMetadata> const& record) const {
  auto const key = getInnerMostURL(record->getLocation());
  for (;;) {
    std::shared_ptr<IFolderEntry> parent;
    awaitEntries([&](auto& entries) REQUIRES(guard_) {
      if (!key.hasParent()) return;
      auto it = folderIndex_.findExact(key.getParent());
      if (it != folders_.end()) entries.push_back(parent = it->second);
    });
    awaitFrozenReAdd();
    CacheLock lock(*this);
    if (key.hasParent()) {
      // A listing begun while this one waited: it may also predate the store's copy.
      auto it = folderIndex_.findExact(key.getParent());
      if (it != folders_.end() && it->second != parent && isUnbuiltListing(it->second)) continue;
    }
    addFrozenEntries();
    record->thaw();
    return;
  }
}

void MetadataCache::thawFolderImpl(StorageIRI const& iri, bool recursive) const {
  auto it = folderIndex_.findExact(iri);
  if (it == folders_.end()) return;
  auto const entry = it->second;
  entry->thaw();
  if (!recursive) return;
  for (auto const& child : entry->getAllContent()) {
    if (child.index() == 0) {
      std::get<0>(child)->thaw();
    } else {
      thawFolderImpl(std::get<1>(child)->getLocation(), true);
    }
  }
}

void MetadataCache::thawFolder(StorageIRI const& iri, bool recursive) {
  auto const key = getInnerMostURL(iri);
  if (recursive) {
    awaitSubtree(key, false);
  } else {
    awaitEntries([&](auto& entries) REQUIRES(guard_) {
      if (auto it = folderIndex_.findExact(key); it != folders_.end()) entries.push_back(it->second);
    });
  }
  CacheLock lock(*this);
  thawFolderImpl(key, recursive);
  removeFrozenMetadata(iri, false);
}

// ---- population ---------------------------------------------------------------------------

void MetadataCache::populateWholeFolderTreeWhenPossible(bool wait) {
  if (!inner_->hasFeature(static_cast<fsp::ExtendedFeature>(1))) return;
  if (!wait) loadAndGetFolderContainer(inner_->getLocation());
  // A new population is asked for: one that an emptied cache ended has stopped first.
  population_.finish();
  stopping_.store(false, std::memory_order_relaxed);
  population_.start([this, wait] { populate(wait); }, wait);
}

// The population's walk over the recursive listing. Folders are filled in entries of
// their own that no reader sees (`filling_`); a folder's entry is published into the
// tree when the walk leaves the folder, and from then on answers about it come from the
// cache. A reader who asks about a folder not yet published finds it not cached and lists
// it on its own (the first answer waits for that folder, not for the tree); the walk then
// drops its own entry for that folder when it is complete.
//
// A folder is left when the listing names an entry outside it: the walk relies on the
// recursive listing giving each folder's entries together, after the folder itself (as a
// depth-first walk or a listing in key order does). Should a store break that, the folder
// met again is dropped from the tree, so that its next reader lists it anew.
//
// Entries of a folder the walk does not fill (the root, which was listed on its own, and
// any folder a reader listed or a change dropped meanwhile) are not added: that folder's
// own listing, or the next one, has them. Its sub-folders are filled as long as the
// folder's cached entry lists them.
class MetadataCache::PopulationWalk {
 public:
  PopulationWalk(MetadataCache const& cache, StorageIRI base)
      : cache_(cache), base_(std::move(base)), producers_(FutureFolderEntry::producersFor(cache.inner_)) {}

  void add(fsp::FolderEntry const& entry) {
    auto const& relative = entry.getName();
    auto const slash = relative.rfind(u'/');
    std::u16string_view const parent =
        slash == std::u16string::npos ? std::u16string_view() : std::u16string_view(relative).substr(0, slash);
    std::u16string name = slash == std::u16string::npos ? relative : relative.substr(slash + 1);
    leaveFoldersOutside(parent);
    if (!open_.empty() && open_.back().relative == parent) {
      addToFilling(open_.back(), entry, std::move(name));
    } else if (!entry.isFile()) {
      beginBelowCached(entry, relative, parent);
    } else if (!parent.empty()) {
      noteMetAgain(parent);
    }
  }

  // Publishes every folder still open, the deepest first.
  void finish() {
    for (; !open_.empty(); open_.pop_back()) publish(open_.back());
  }

 private:
  struct Folder {
    std::u16string relative;  // path below the root, as the listing names it
    StorageIRI key;
    std::shared_ptr<IFolderEntry> entry;
  };

  static bool isSelfOrAncestor(std::u16string_view folder, std::u16string_view path) {
    return path.size() >= folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           (path.size() == folder.size() || path[folder.size()] == u'/');
  }

  void leaveFoldersOutside(std::u16string_view parent) {
    while (!open_.empty() && !isSelfOrAncestor(open_.back().relative, parent)) {
      publish(open_.back());
      open_.pop_back();
    }
  }

  void addToFilling(Folder const& folder, fsp::FolderEntry const& entry, std::u16string name) {
    auto record = FutureFolderEntry::recordFor(entry, folder.entry->sharedLocation(), std::move(name), cache_.inner_,
                                               producers_);
    if (record.index() == 0) {
      folder.entry->addFileMetadata(std::get<0>(record), false);
      return;
    }
    auto const& child = std::get<1>(record);
    folder.entry->addFolderMetadata(child, false);
    begin(entry.getName(), child->getLocation(), child, initiallyInvalid(child), &folder);
  }

  // A folder whose parent is not being filled: filled when its parent's cached entry
  // lists it, with the record that entry holds.
  void beginBelowCached(fsp::FolderEntry const& entry, std::u16string const& relative, std::u16string_view parent) {
    StorageIRI const parentKey = parent.empty() ? base_ : StorageIRI(base_, std::u16string(parent));
    std::shared_ptr<IFolderEntry> parentEntry;
    {
      CacheLock lock(cache_);
      auto it = cache_.getCacheIterator(parentKey);
      if (it == cache_.folders_.end()) return;  // neither filled nor cached: its listing has it all
      parentEntry = it->second;
    }
    if (!awaitEntry(parentEntry)) return;
    if (!parent.empty()) noteMetAgain(parent);
    auto const key = StorageIRI(base_, relative);
    auto record = parentEntry->getFolderMetadata(key, true);
    if (!record) return;
    // Whether the folder's content comes with the listing is the listing's to say.
    auto const listed = FutureFolderEntry::recordFor(entry, parentEntry->sharedLocation(), record->getName(),
                                                     cache_.inner_, producers_);
    begin(relative, key, record, initiallyInvalid(std::get<1>(listed)));
  }

  static bool initiallyInvalid(std::shared_ptr<FolderMetadata> const& record) {
    return record->getExtendedAttributes().hasAttribute(kInitiallyInvalid);
  }

  // Starts filling the folder at `key` whose record is `record`, unless the tree has it
  // already, or `parent` (the folder being filled that lists it, if any) was dropped
  // meanwhile; a folder whose content the listing does not give is listed on its own.
  void begin(std::u16string const& relative, StorageIRI const& key, std::shared_ptr<FolderMetadata> const& record,
             bool listedOnItsOwn, Folder const* parent = nullptr) {
    CacheLock lock(cache_);
    if (parent != nullptr && !isFilling(*parent)) return;
    if (cache_.getCacheIterator(key) != cache_.folders_.end() || cache_.filling_.count(key) != 0) return;
    if (listedOnItsOwn) {
      auto entry = std::make_shared<FutureFolderEntry>(key, cache_.inner_);
      entry->withMetadata(record);
      cache_.emplaceFolder(key, entry);
      return;
    }
    auto entry = std::make_shared<IFolderEntry>(key);
    entry->withMetadata(record);
    cache_.filling_.emplace(key, entry);
    open_.push_back(Folder{relative, key, std::move(entry)});
  }

  // The folder is complete: into the tree with it, unless a change dropped it meanwhile
  // or a reader listed the folder on its own.
  void publish(Folder const& folder) {
    CacheLock lock(cache_);
    if (!isFilling(folder)) return;
    cache_.filling_.erase(folder.key);
    if (cache_.getCacheIterator(folder.key) != cache_.folders_.end()) return;
    cache_.emplaceFolder(folder.key, folder.entry);
    published_.insert(folder.entry.get());
  }

  // Whether `folder` is still being filled (no change dropped it).
  bool isFilling(Folder const& folder) const REQUIRES(cache_.guard_) {
    auto it = cache_.filling_.find(folder.key);
    return it != cache_.filling_.end() && it->second == folder.entry;
  }

  // An entry of a folder the walk had left already: the folder may lack it.
  void noteMetAgain(std::u16string_view parent) {
    if (published_.empty() || parent == lastNoted_) return;
    lastNoted_ = parent;
    StorageIRI const key(base_, std::u16string(parent));
    CacheLock lock(cache_);
    auto it = cache_.getCacheIterator(key);
    if (it == cache_.folders_.end() || published_.count(it->second.get()) == 0) return;
    getLogger().log(Severity::Debug, "The recursive listing named an entry of " + key.toUtf8() +
                                         " after leaving that folder; it is listed again when next asked for.");
    published_.erase(it->second.get());
    cache_.doInvalidateFolder(key);
  }

  MetadataCache const& cache_;
  StorageIRI const base_;
  FutureFolderEntry::Producers const producers_;
  std::vector<Folder> open_;                           // the folders being filled, outermost first
  std::unordered_set<IFolderEntry const*> published_;  // entries this walk put into the tree
  std::u16string lastNoted_;                           // the folder noteMetAgain looked at last
};

void MetadataCache::populate(bool wait) {
  try {
    // Keys are inner-most IRIs, so the listed names are joined to the inner-most form
    // of the inner root. The root is listed on its own (if it was not loaded already).
    auto const base = getInnerMostURL(inner_->getLocation());
    {
      CacheLock lock(*this);
      doGetFolderContainer(base, true);
    }
    auto listing = inner_->listAllRecursive(u"*");
    PopulationWalk walk(*this, base);
    while (!stopping_.load(std::memory_order_relaxed) && listing->notAtEnd()) {
      listing->advance();
      try {
        walk.add(listing->current());
      } catch (...) {
        getLogger().log(Severity::Error, kRecursiveListingFailure);
      }
    }
    walk.finish();
    listing.reset();
    handBackFreeMemory();
  } catch (...) {
    getLogger().log(Severity::Error, "Recursive folder listing failure");
    if (listingFailureObserver_) {
      // The folder the store named, when its error names one; the root otherwise.
      StorageIRI folder = inner_->getLocation();
      try {
        throw;
      } catch (fsp::Exception const& e) {
        folder = e.getIRI();
      } catch (...) {
      }
      try {
        listingFailureObserver_(folder, std::current_exception());
      } catch (...) {
        // The report is best effort; the log has the failure.
      }
    }
    {
      CacheLock lock(*this);
      doInvalidateAll();
    }
    if (wait) throw;
  }
}

void MetadataCache::waitForFuturePopulationToFinish() { population_.awaitFirstTime(); }

void MetadataCache::doWaitForFuturePopulationToFinish() { population_.await(); }

// ---- space --------------------------------------------------------------------------------

std::uint64_t MetadataCache::getSpaceOccupiedByFile(StorageIRI const& iri) const {
  {
    CacheLock lock(*this);
    triggerInvalidationProcess();
  }
  auto record = getFileMetadata(iri);
  return record ? record->getFileSize() : 0;
}

std::uint64_t MetadataCache::getSpaceOccupiedByFolder(StorageIRI const& iri) const {
  awaitSubtree(getInnerMostURL(iri), false);
  CacheLock lock(*this);
  return doGetSpaceOccupiedByFolder(iri);
}

std::uint64_t MetadataCache::doGetSpaceOccupiedByFolder(StorageIRI const& iri) const {
  auto entry = doGetFolderContainer(iri, false);
  if (!entry) return 0;
  IFolderEntry::const_iterator it;
  IFolderEntry::const_iterator end;
  try {
    // Entries change only under the cache lock, which the caller holds: the children are
    // read in place rather than copied.
    it = entry->begin();
    end = entry->end();
  } catch (Exception const& e) {
    if (doesNotExist(e)) return 0;  // vanished on the inner side: nothing cached there
    throw;
  }
  std::uint64_t total = 0;
  for (; it != end; ++it) {
    if (it->index() == 0) {
      total += std::get<0>(*it)->getFileSize();
    } else {
      total += doGetSpaceOccupiedByFolder(std::get<1>(*it)->getLocation());
    }
  }
  return total;
}

// ---- inspection ---------------------------------------------------------------------------

std::vector<fsp::StorageIRI> MetadataCache::cachedFolders() const {
  CacheLock lock(*this);
  std::vector<StorageIRI> keys;
  for (auto const& [key, entry] : folders_) keys.push_back(key);
  return keys;
}

std::vector<fsp::StorageIRI> MetadataCache::frozenSnapshot() const {
  CacheLock lock(*this);
  return frozen_.keys();
}

std::vector<fsp::StorageIRI> MetadataCache::pendingInvalidations() const {
  CacheLock lock(*this);
  return {pending_.begin(), pending_.end()};
}

}  // namespace storage::overlayprovider
