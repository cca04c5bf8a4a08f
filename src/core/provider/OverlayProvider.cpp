#include <core/provider/OverlayProvider.hpp>

#include <core/exec/BackendExecutor.hpp>
#include <core/exec/ParallelExecutor.hpp>
#include <core/content/CachingErrorException.hpp>
#include <core/metadata/FolderIterator.hpp>
#include <core/util/IRIHelpers.hpp>
#include <core/util/Logger.hpp>
#include <core/provider/OverlayOptions.hpp>
#include <core/quota/QuotaAccountant.hpp>
#include <core/exec/SwitchableExecutor.hpp>
#include <core/exec/SynchronousExecutor.hpp>
#include <core/content/WorkingFileByteStream.hpp>

#include <foundation/log/ScopedTrace.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

#include <filesystem>
#include <future>
#include <optional>
#include <stdexcept>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;
using fsp::ErrorCode;
using fsp::Exception;

constexpr char const* kSourceFile = "src/core/provider/OverlayProvider.cpp";
constexpr std::chrono::milliseconds kQuotaPollPeriod{30000};

std::string iriDetail(fsp::StorageIRI const& iri) {
  return getLogger().isEnabled(Severity::Trace) ? "iri=" + iri.toUtf8() : std::string();
}

// Entry trace of a provider operation: the full signature, this file and the line, and
// the IRI when the logger writes traces.
#define OVERLAY_TRACE() foundation::log::ScopedTrace overlayTrace_(getLogger(), __PRETTY_FUNCTION__, kSourceFile, __LINE__)
#define OVERLAY_TRACE_IRI(iri) \
  foundation::log::ScopedTrace overlayTrace_(getLogger(), __PRETTY_FUNCTION__, kSourceFile, __LINE__, iriDetail(iri))

void logConfiguration(std::string const& key, boost::property_tree::ptree::data_type const& value) {
  boost::property_tree::ptree record;
  record.put(key, value);
  getLogger().logJson(Severity::Debug, record);
}

// The metadata cache given, or a new one that matches names as the inner store does.
std::shared_ptr<MetadataCache> metadataCacheFor(std::shared_ptr<fsp::StorageItem> const& inner,
                                                std::unique_ptr<MetadataCache> given) {
  if (given) return std::shared_ptr<MetadataCache>(std::move(given));
  bool const caseSensitive = inner->getFilenameSensitivity() == fsp::FilenameSensitivity::CaseSensitive;
  return std::make_shared<MetadataCache>(inner, caseSensitive);
}

// The text of the inner-most IRI that `iri` wraps, and its form with the host stripped,
// when that inner-most IRI is a root ("/"): what getInnerMostURL() reuses.
std::optional<OverlayProvider::WrappedRoot> wrappedRootOf(fsp::StorageIRI const& location) {
  try {
    fsp::StorageIRI const* innermost = &location;
    while (innermost->hasInnerIRI()) innermost = &innermost->getInnerIRI();
    if (innermost->getPath() != u"/") return std::nullopt;
    return OverlayProvider::WrappedRoot{innermost->toString(), stripHostFrom(*innermost)};
  } catch (...) {
    // Then every IRI takes the general mapping, which reports the failure itself.
    return std::nullopt;
  }
}

}  // namespace

OverlayProvider::OverlayProvider(StorageItem inner) : OverlayProvider(std::move(inner), nullptr, nullptr, nullptr) {}

OverlayProvider::OverlayProvider(StorageItem inner, std::shared_ptr<IExecutor> executor)
    : OverlayProvider(std::move(inner), nullptr, nullptr, std::move(executor)) {}

OverlayProvider::OverlayProvider(StorageItem inner, std::unique_ptr<ContentCache> contentCache,
                                 std::unique_ptr<MetadataCache> metadataCache, std::shared_ptr<IExecutor> executor)
    : inner_(std::make_shared<StorageItem>(std::move(inner))),
      contentCache_(contentCache ? std::move(contentCache) : std::make_unique<ContentCache>()),
      metadataCache_(metadataCacheFor(inner_, std::move(metadataCache))),
      executor_(std::move(executor)),
      executorHandle_(std::make_shared<SwitchableExecutor>()),
      wrappedRoot_(wrappedRootOf(inner_->getLocation())) {
  executorHandle_->set(executor_);
  contentCache_->setFlushAttributeReads(flushReads_);
  contentCache_->setThawWritten([cache = metadataCache_](auto const& record) { cache->thawWritten(record); });
  contentCache_->setDeliveryReport(deliveryReport_);
  metadataCache_->setListingFailureObserver(
      [report = deliveryReport_](StorageIRI const& folder, std::exception_ptr error) { report->unlisted(folder, error); });
}

OverlayProvider::~OverlayProvider() {
  try {
    doShutdown();
  } catch (std::exception const& e) {
    getLogger().log(Severity::Diagnostic, std::string("Exception caught: ") + e.what());
  } catch (...) {
    getLogger().log(Severity::Diagnostic, "Exception caught: unknown exception");
  }
  // Streams, queued transactions and listeners are gone; drop the working entries, then
  // the cache files of a root nobody else knows about. Nothing here makes a folder: a
  // provider that never ran touches no disk, and a root removed from outside stays gone.
  try {
    contentCache_->releaseAll();
    if (ownCacheRoot_.load(std::memory_order_acquire) && !persistContentCache_.load(std::memory_order_acquire)) {
      std::error_code ignored;
      std::filesystem::remove_all(contentCache_->getCacheRoot(), ignored);
    }
  } catch (std::exception const& e) {
    getLogger().log(Severity::Diagnostic, std::string("Exception caught: ") + e.what());
  }
}

void OverlayProvider::lazyInitialize() const {
  std::call_once(initOnce_, [this] {
    OverlayOptions const environment = environmentOptions();
    boost::property_tree::ptree record;
    record.put("overlay.initialization.maxQueueWeight", maxQueueWeight_.load(std::memory_order_acquire));
    getLogger().logJson(Severity::Debug, record);
    {
      std::lock_guard lock(initMutex_);
      if (!executor_) {
        // Whenever the queue runs dry, working entries set aside are let go.
        auto emptyRecycleBin = [cache = contentCache_.get()] { cache->emptyRecycleBin(); };
        double const maxWeight = maxQueueWeight_.load(std::memory_order_acquire);
        auto const transfers = transfers_.load(std::memory_order_acquire);
        if (transfers > 1) {
          executor_ = std::make_shared<ParallelExecutor>(static_cast<std::size_t>(transfers), emptyRecycleBin,
                                                         maxWeight, &steadyNow, environment.captureQueueMetrics);
        } else {
          executor_ = std::make_shared<BackendExecutor>(emptyRecycleBin, maxWeight, &steadyNow,
                                                        environment.captureQueueMetrics);
        }
        executorHandle_->set(executor_);
      }
    }
    auto const executor = executorHandle_;
    auto quota = std::make_shared<QuotaAccountant>(*inner_, kQuotaPollPeriod, *metadataCache_, executor);
    // Echoes of the overlay's own changes are told from changes made elsewhere only when
    // a window is configured: a change made elsewhere within it goes unseen.
    EventListener::Options options;
    if (auto const window = echoWindowMs_.load(std::memory_order_acquire); window > 0) {
      auto ownChanges = std::make_shared<OwnChanges>(std::chrono::milliseconds(window));
      executorHandle_->recordOwnChanges(ownChanges);
      options.ownChanges = std::move(ownChanges);
    }
    options.narrowInvalidation = narrowInvalidation_.load(std::memory_order_acquire);
    options.applied = appliedFeed_;
    auto listener = std::make_shared<EventListener>(*inner_, *metadataCache_, *contentCache_, executor, quota,
                                                    std::move(options));
    // While the overlay changes the inner store, event handling is paused; it resumes a
    // full time-out after the last change, and not before the queue has delivered every
    // change of the overlay's own (the store's echoes of them come in meanwhile and must
    // not make the overlay forget changes still queued behind them).
    auto latch = std::make_shared<TimedLatch>(
        [listener] { listener->pause(); }, [listener] { listener->unpause(); }, environment.eventRobustnessTimeout,
        std::make_shared<TimedLatch::ConditionWaiter>(),
        [handle = executorHandle_] { return handle->changesInFlight() > 0; });
    {
      // Operations read these after lazyInitialize(); doShutdown may read them at any
      // time, under the same mutex.
      std::lock_guard lock(initMutex_);
      quota_ = std::move(quota);
      eventListener_ = std::move(listener);
      timedLatch_ = std::move(latch);
    }
    metadataCache_->populateWholeFolderTreeWhenPossible(synchronous_.load(std::memory_order_acquire));
  });
}

void OverlayProvider::setEnvironmentOptions(OverlayOptions const& options) {
  std::lock_guard lock(initMutex_);
  environment_ = options;
  waitForZeroPeriodMs_.store(options.waitForZeroPeriod.count(), std::memory_order_release);
}

OverlayOptions OverlayProvider::environmentOptions() const {
  std::lock_guard lock(initMutex_);
  if (!environment_) {
    environment_ = OverlayOptions::fromEnvironment();
    waitForZeroPeriodMs_.store(environment_->waitForZeroPeriod.count(), std::memory_order_release);
  }
  return *environment_;
}

OverlayOptions OverlayProvider::currentOptions() const {
  OverlayOptions options;
  options.maxQueueWeight = maxQueueWeight_.load(std::memory_order_acquire);
  options.minQueueItemWeight = minQueueItemWeight_.load(std::memory_order_acquire);
  options.persistContentCache = persistContentCache_.load(std::memory_order_acquire);
  options.maxReadPayloadSize = maxReadPayloadSize_.load(std::memory_order_acquire);
  options.maxWritePayloadSize = maxWritePayloadSize_.load(std::memory_order_acquire);
  options.transfers = transfers_.load(std::memory_order_acquire);
  options.echoWindowMs = echoWindowMs_.load(std::memory_order_acquire);
  options.narrowInvalidation = narrowInvalidation_.load(std::memory_order_acquire);
  options.holdEventsForChangesOnly = holdEventsForChangesOnly_.load(std::memory_order_acquire);
  options.synchronous = synchronous_.load(std::memory_order_acquire);
  options.disableContentCache = disableContentCache_.load(std::memory_order_acquire);
  options.backslashToForwardSlash = backslashToForwardSlash_.load(std::memory_order_acquire);
  return options;
}

std::shared_ptr<IExecutor> OverlayProvider::executor() const {
  std::lock_guard lock(initMutex_);
  return executor_;
}

std::shared_ptr<TimedLatch> OverlayProvider::timedLatch() const {
  lazyInitialize();
  return timedLatch_;
}

void OverlayProvider::triggerLatchForRead() const {
  if (!holdEventsForChangesOnly_.load(std::memory_order_acquire)) triggerLatch();
}

void OverlayProvider::triggerLatch() const {
  if (timedLatch_) timedLatch_->trigger();
}

fsp::StorageIRI OverlayProvider::getInnerMostURL(StorageIRI const& iri) const {
  if (wrappedRoot_ && iri.hasInnerIRI()) {
    StorageIRI const* innermost = &iri.getInnerIRI();
    while (innermost->hasInnerIRI()) innermost = &innermost->getInnerIRI();
    // The free getInnerMostURL's own expression for a wrapped root, with the stripped root
    // reused.
    if (innermost->getPath() == u"/" && innermost->toString() == wrappedRoot_->text) {
      return StorageIRI(wrappedRoot_->stripped, iri.getPath()).getResolvedIRI();
    }
  }
  return storage::overlayprovider::getInnerMostURL(iri);
}

fsp::StorageItem OverlayProvider::innerItemFor(StorageIRI const& iri) const {
  return StorageItem(*inner_, getInnerMostURL(iri).getPath());
}

fsp::StorageIRI OverlayProvider::overlayIRIFor(StorageIRI const& like, StorageIRI const& inner) const {
  if (!like.hasInnerIRI()) return inner;
  auto rootPath = getInnerMostURL(like.withPath(u"/")).getPath();
  auto const path = inner.getResolvedIRI().getPath();
  if (rootPath == u"/") return like.withPath(path);
  if (path == rootPath) return like.withPath(u"/");
  if (path.size() > rootPath.size() && path.compare(0, rootPath.size(), rootPath) == 0 && path[rootPath.size()] == u'/') {
    return like.withPath(path.substr(rootPath.size()));
  }
  return like;
}

template <class Call>
decltype(auto) OverlayProvider::forwarding(StorageIRI const& iri, Call&& call) const {
  try {
    return call();
  } catch (Exception const& e) {
    throw Exception(e.getErrorCode(), overlayIRIFor(iri, e.getIRI()), e.getDetail());
  }
}

void OverlayProvider::lazyInitialize(StorageIRI const& iri) const {
  try {
    lazyInitialize();
  } catch (Exception const& e) {
    // The store failed wherever the initialization touched it (its root): for the
    // caller, the operation on its own item failed.
    throw Exception(e.getErrorCode(), iri, e.getDetail());
  }
}

// --- Helpers of the operations ------------------------------------------------------

namespace {

// What a transaction on one inner-most IRI touches: its text is the queue's location.
Touches touching(StorageIRI const& inner) { return Touches::location(inner.toString()); }

}  // namespace

WorkingFileEntryParams OverlayProvider::workingFileEntryParams() const {
  WorkingFileEntryParams params(static_cast<unsigned long long>(maxReadPayloadSize_.load(std::memory_order_acquire)),
                                static_cast<unsigned long long>(maxWritePayloadSize_.load(std::memory_order_acquire)));
  params.withPersist(persistContentCache_.load(std::memory_order_acquire))
      .withDiskCaching(!disableContentCache_.load(std::memory_order_acquire))
      .withMinItemWeight(minQueueItemWeight_.load(std::memory_order_acquire))
      .withSynchronous(synchronous_.load(std::memory_order_acquire))
      .withWaitForZeroPeriod(std::chrono::milliseconds(waitForZeroPeriodMs_.load(std::memory_order_acquire)));
  return params;
}

std::shared_ptr<IQuotaAccountant> OverlayProvider::quotaAccountant() const {
  lazyInitialize();
  return quota_;
}

void OverlayProvider::submit(char const* name, StorageIRI const& location, Touches const& touches,
                             ObservableTransactionType type, std::function<void()> call,
                             std::function<void()> after) const {
  if (shutDown_.load(std::memory_order_acquire)) return;
  // The report names the item as the store does (the inner-most IRI has no authority).
  auto task = [this, name, location = inner_->getLocation().withPath(location.getPath()), call = std::move(call),
               after = std::move(after)] {
    if (shutDown_.load(std::memory_order_acquire)) return;
    constexpr int kRetries = 2;
    for (int attempt = 0;; ++attempt) {
      try {
        call();
        break;
      } catch (Exception const& e) {
        getLogger().log(Severity::Debug, std::string("Exception caught: ") + e.what());
        if (e.getErrorCode() != ErrorCode::TransientFailure || attempt >= kRetries) {
          deliveryReport_->undelivered(location, name, std::current_exception());
          return;
        }
      } catch (std::exception const& e) {
        getLogger().log(Severity::Error, std::string("Unexpected exception in ") + name + " (attempt " +
                                             std::to_string(attempt) + ")");
        getLogger().log(Severity::Debug, std::string("Exception caught: ") + e.what());
        if (attempt >= kRetries) {
          deliveryReport_->undelivered(location, name, std::current_exception());
          return;
        }
      } catch (...) {
        getLogger().log(Severity::Error, std::string("Unexpected exception in ") + name + " (attempt " +
                                             std::to_string(attempt) + ")");
        if (attempt >= kRetries) {
          deliveryReport_->undelivered(location, name, std::current_exception());
          return;
        }
      }
    }
    if (after) after();
  };
  executorHandle_->executeTouching(std::move(task), type, minQueueItemWeight_.load(std::memory_order_acquire), touches);
}

void OverlayProvider::onAppliedChanges(fsp::extensions::IAppliedChanges::Callback callback) { appliedFeed_->set(std::move(callback)); }

bool OverlayProvider::parentKnown(StorageIRI const& inner) const {
  if (inner.getPath() == u"/") return true;
  for (auto folder = inner.getParent(); folder.getPath() != u"/"; folder = folder.getParent()) {
    if (!metadataCache_->getFolderMetadata(folder)) return false;
  }
  return true;
}

// Each first asks the metadata cache for an answer from what it holds complete (one
// lock, no ancestor IRIs looked up one by one), and only when that would need a folder
// listed or waited for takes the walk above, which answers the same.

std::shared_ptr<FileMetadata> OverlayProvider::fileRecord(StorageIRI const& inner) const {
  if (auto known = metadataCache_->findFileBelowKnownFolders(inner, false)) return std::move(*known);
  return parentKnown(inner) ? metadataCache_->getFileMetadata(inner) : nullptr;
}

std::shared_ptr<FolderMetadata> OverlayProvider::folderRecord(StorageIRI const& inner) const {
  if (auto known = metadataCache_->findFolderBelowKnownFolders(inner, false)) return std::move(*known);
  return parentKnown(inner) ? metadataCache_->getFolderMetadata(inner) : nullptr;
}

bool OverlayProvider::hasFileRecord(StorageIRI const& inner) const {
  if (auto known = metadataCache_->findFileBelowKnownFolders(inner, true)) return *known != nullptr;
  return parentKnown(inner) && metadataCache_->hasFile(inner);
}

bool OverlayProvider::hasFolderRecord(StorageIRI const& inner) const {
  if (auto known = metadataCache_->findFolderBelowKnownFolders(inner, true)) return *known != nullptr;
  return parentKnown(inner) && metadataCache_->hasFolder(inner);
}

bool OverlayProvider::recordIsWritable(StorageIRI const& inner) const {
  if (auto file = fileRecord(inner)) return file->isWritable();
  if (auto folder = folderRecord(inner)) return folder->isWritable();
  return false;
}

void OverlayProvider::discardCachedContent(StorageIRI const& inner) const {
  updateContentCache([&] {
    if (auto record = fileRecord(inner)) {
      auto entry = contentCache_->retrieveEntry(inner, inner_, record, executorHandle_, quota_, timedLatch_,
                                                workingFileEntryParams(), shutDown_);
      entry->removeCachedEntry();
    }
    contentCache_->invalidate(inner, true);
  });
}

std::shared_ptr<FileMetadata> OverlayProvider::getFileMetadata(StorageIRI const& inner) const {
  auto record = fileRecord(inner);
  if (!record) return nullptr;
  try {
    auto entry = contentCache_->currentEntry(inner, *record);
    // Without an entry (or with a stale one, now dropped) a new entry would carry this
    // very record; the answer is the record, and no entry is made for a mere query.
    if (!entry) return record;
    if (entry->wasAbortedDueToWriteProblem()) {
      // Replaced by a fresh entry, as an open would replace it.
      entry = contentCache_->retrieveEntry(inner, inner_, record, executorHandle_, quota_, timedLatch_,
                                           workingFileEntryParams(), shutDown_);
    }
    return entry->getMetadata();
  } catch (CachingErrorException const&) {
    // Without a content entry the metadata cache's record is the best answer.
    return record;
  }
}

template <class Update>
void OverlayProvider::updateContentCache(Update&& update) const {
  try {
    update();
  } catch (CachingErrorException const& e) {
    // A content cache that cannot initialize holds no entries: nothing to update.
    getLogger().log(Severity::Debug, std::string("Exception caught: ") + e.what());
  }
}

void OverlayProvider::dropContentCache() const {
  updateContentCache([&] {
    contentCache_->invalidateAll();
    if (persistContentCache_.load(std::memory_order_acquire)) return;
    // Without persistence nobody needs the files again, and a file kept would be taken
    // up by the next entry of its location whenever it is not older than the content.
    std::error_code failure;
    for (auto const& file : std::filesystem::directory_iterator(contentCache_->getDataDirectory(), failure)) {
      std::error_code ignored;
      if (file.is_regular_file(ignored)) std::filesystem::remove(file.path(), ignored);
    }
  });
}

void OverlayProvider::checkNotOpen(StorageIRI const& iri, StorageIRI const& inner) const {
  bool open = false;
  updateContentCache([&] {
    if (inner_->hasFeature(fsp::ExtendedFeature::RemoveFilesOpenForReading)) {
      open = contentCache_->hasAliveEntry(inner, true);
    } else if (!inner_->hasFeature(fsp::ExtendedFeature::RemoveOpenFiles)) {
      open = contentCache_->hasAliveEntry(inner, false);
    }
  });
  if (open) throw Exception(ErrorCode::InUse, iri);
}

void OverlayProvider::requireWritableParent(StorageIRI const& iri, StorageIRI const& inner) const {
  auto parent = folderRecord(inner.getParent());
  if (!parent) throw Exception(ErrorCode::DoesNotExist, iri.getParent());
  if (!parent->isWritable()) throw Exception(ErrorCode::NotWritable, iri.getParent());
}


// --- Mutations -----------------------------------------------------------------------
// Each: entry trace, lazy initialization, the inner-most IRI, the latch triggered (the
// inner store's echo of the change is not taken for a change made elsewhere), the path
// lock, the checks, the cache updates, then the queued transaction.

void OverlayProvider::doCreateFile(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    if ((hasFileRecord(inner) || hasFolderRecord(inner))) throw Exception(ErrorCode::AlreadyExists, iri);
    requireWritableParent(iri, inner);
    updateContentCache([&] { contentCache_->invalidate(inner, false); });
    metadataCache_->createFileMetadata(inner);
  }
  submit(
      "createFile", inner, touching(inner), ObservableTransactionType::FILE_CREATION, [this, inner] { StorageItem(*inner_, inner.getPath()).createFile(); },
      [cache = metadataCache_, inner] { cache->thawFile(inner); });
}

void OverlayProvider::doCreateFolder(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    if ((hasFileRecord(inner) || hasFolderRecord(inner))) throw Exception(ErrorCode::AlreadyExists, iri);
    requireWritableParent(iri, inner);
    metadataCache_->createFolderMetadata(inner);
  }
  submit(
      "createFolder", inner, touching(inner), ObservableTransactionType::FOLDER_CREATION,
      [this, inner] { StorageItem(*inner_, inner.getPath()).createFolder(); },
      [cache = metadataCache_, inner] { cache->thawFolder(inner, false); });
}

void OverlayProvider::doCreateFolderRecursive(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  // The store creates every missing level: what is queued later inside the topmost one
  // waits for this transaction.
  StorageIRI topmostCreated = inner;
  {
    auto lock = pathLocks_.acquire(inner);
    if ((hasFileRecord(inner) || hasFolderRecord(inner))) throw Exception(ErrorCode::AlreadyExists, iri);
    // The missing levels, from the IRI up to the nearest folder the cache knows.
    std::vector<StorageIRI> missing{inner};
    StorageIRI level = inner;
    std::shared_ptr<FolderMetadata> nearest;
    while (level.getPath() != u"/") {
      level = level.getParent();
      nearest = folderRecord(level);
      if (nearest) break;
      if (hasFileRecord(level)) throw Exception(ErrorCode::AlreadyExists, overlayIRIFor(iri, level));
      missing.push_back(level);
    }
    if (nearest && missing.size() == 1 && !nearest->isWritable()) {
      throw Exception(ErrorCode::NotWritable, iri.getParent());
    }
    for (auto it = missing.rbegin(); it != missing.rend(); ++it) metadataCache_->createFolderMetadata(*it);
    topmostCreated = missing.back();
  }
  submit(
      "createFolderRecursive", inner, touching(topmostCreated), ObservableTransactionType::FOLDER_CREATION_RECURSIVE,
      [this, inner] { StorageItem(*inner_, inner.getPath()).createFolderRecursive(); },
      [cache = metadataCache_, inner] { cache->thawFolder(inner, false); });
}

void OverlayProvider::doRemoveFile(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    auto file = fileRecord(inner);
    if (!file) throw Exception(ErrorCode::DoesNotExist, iri);
    if (!file->isWritable()) throw Exception(ErrorCode::NotWritable, iri);
    checkNotOpen(iri, inner);
    if (quota_) quota_->removeFile(inner);
    metadataCache_->removeFile(inner);
    updateContentCache([&] { contentCache_->invalidate(inner, true); });
  }
  submit("removeFile", inner, touching(inner), ObservableTransactionType::FILE_REMOVAL,
         [this, inner] { StorageItem(*inner_, inner.getPath()).removeFile(); }, nullptr);
}

void OverlayProvider::doRemoveFolder(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    auto folder = folderRecord(inner);
    if (!folder) throw Exception(ErrorCode::DoesNotExist, iri);
    if (!folder->isWritable()) throw Exception(ErrorCode::NotWritable, iri);
    if (!metadataCache_->loadAndGetFolderContainer(inner)->empty()) throw Exception(ErrorCode::FolderNotEmpty, iri);
    metadataCache_->removeFolder(inner);
    updateContentCache([&] { contentCache_->invalidateAllDescendantsOf(inner, true); });
  }
  submit("removeFolder", inner, touching(inner), ObservableTransactionType::FOLDER_REMOVAL,
         [this, inner] { StorageItem(*inner_, inner.getPath()).removeFolder(); }, nullptr);
}

void OverlayProvider::doRemoveFolderRecursively(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    auto folder = folderRecord(inner);
    if (!folder) throw Exception(ErrorCode::DoesNotExist, iri);
    if (!folder->isWritable()) throw Exception(ErrorCode::NotWritable, iri);
    if (quota_) quota_->removeFolderTree(inner);
    metadataCache_->removeFolder(inner);
    updateContentCache([&] { contentCache_->invalidateAllDescendantsOf(inner, true); });
  }
  submit("removeFolderRecursively", inner, touching(inner), ObservableTransactionType::FOLDER_REMOVAL_RECURSIVE,
         [this, inner] { StorageItem(*inner_, inner.getPath()).removeFolderRecursively(); }, nullptr);
}

void OverlayProvider::doMoveFile(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const {
  OVERLAY_TRACE_IRI(src);
  lazyInitialize();
  auto const from = getInnerMostURL(src);
  auto const to = getInnerMostURL(dst);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquirePair(from, to);
    // A store that moves open files needs no open-entry test.
    if (!inner_->hasFeature(fsp::ExtendedFeature::MoveOpenFiles)) checkNotOpen(src, from);
    auto file = fileRecord(from);
    if (!file) throw Exception(ErrorCode::DoesNotExist, src);
    if (hasFolderRecord(to) ||
        (hasFileRecord(to) && policy != fsp::ReplacementPolicy::Always)) {
      throw Exception(ErrorCode::AlreadyExists, dst);
    }
    if (from == to) return;  // replacing a file by itself changes nothing
    auto destinationParent = folderRecord(to.getParent());
    if (!destinationParent) throw Exception(ErrorCode::DoesNotExist, dst.getParent());
    if (!file->isWritable()) throw Exception(ErrorCode::NotWritable, src);
    if (!recordIsWritable(from.getParent())) throw Exception(ErrorCode::NotWritable, src.getParent());
    if (!destinationParent->isWritable()) throw Exception(ErrorCode::NotWritable, dst.getParent());
    // The replaced file's cache file goes too: it may be newer than the moved content.
    discardCachedContent(to);
    metadataCache_->moveFile(from, to);
    updateContentCache([&] { contentCache_->moveFile(from, to, fileRecord(to)); });
  }
  submit(
      "moveFile", from, Touches::transfer(from.toString(), to.toString()), ObservableTransactionType::FILE_MOVE,
      [this, from, to, policy] { StorageItem(*inner_, from.getPath()).moveFile(to, policy); },
      [cache = metadataCache_, to] { cache->thawFile(to); });
}

void OverlayProvider::doMoveFolder(StorageIRI const& src, StorageIRI const& dst,
                                   fsp::ReplacementPolicy const& policy) const {
  OVERLAY_TRACE_IRI(src);
  lazyInitialize();
  auto const from = getInnerMostURL(src);
  auto const to = getInnerMostURL(dst);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquirePair(from, to);
    auto folder = folderRecord(from);
    if (!folder) throw Exception(ErrorCode::DoesNotExist, src);
    if (from == to || from.isAncestorOf(to)) throw Exception(ErrorCode::InvalidName, src);
    if (hasFileRecord(to)) throw Exception(ErrorCode::AlreadyExists, dst);
    if (hasFolderRecord(to) && policy == fsp::ReplacementPolicy::Never &&
        !metadataCache_->loadAndGetFolderContainer(to)->empty()) {
      throw Exception(ErrorCode::AlreadyExists, dst);
    }
    auto destinationParent = folderRecord(to.getParent());
    if (!destinationParent) throw Exception(ErrorCode::DoesNotExist, dst.getParent());
    if (!folder->isWritable()) throw Exception(ErrorCode::NotWritable, src);
    if (!recordIsWritable(from.getParent())) throw Exception(ErrorCode::NotWritable, src.getParent());
    if (!destinationParent->isWritable()) throw Exception(ErrorCode::NotWritable, dst.getParent());
    metadataCache_->moveFolder(from, to, policy);
    updateContentCache([&] { contentCache_->moveFolder(from, to, policy, *metadataCache_); });
  }
  submit(
      "moveFolder", from, Touches::transfer(from.toString(), to.toString()), ObservableTransactionType::FOLDER_MOVE,
      [this, from, to, policy] { StorageItem(*inner_, from.getPath()).moveFolder(to, policy); },
      [cache = metadataCache_, to] { cache->thawFolder(to, false); });
}

void OverlayProvider::doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    if (auto file = getFileMetadata(inner)) {
      file->withLastModified(time);
    } else if (auto folder = folderRecord(inner)) {
      folder->withLastModified(time);
    } else {
      throw Exception(ErrorCode::DoesNotExist, iri);
    }
  }
  submit("setLastModified", inner, touching(inner), ObservableTransactionType::SET_LAST_MODIFIED,
         [this, inner, time] { StorageItem(*inner_, inner.getPath()).setLastModified(time); }, nullptr);
}

void OverlayProvider::doSetWritable(StorageIRI const& iri, bool writable) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  triggerLatch();
  auto const pass = flushGate_.enter();
  {
    auto lock = pathLocks_.acquire(inner);
    if (auto file = getFileMetadata(inner)) {
      file->withWritable(writable);
    } else if (auto folder = folderRecord(inner)) {
      folder->withWritable(writable);
    } else {
      throw Exception(ErrorCode::DoesNotExist, iri);
    }
  }
  submit("setWritable", inner, touching(inner), ObservableTransactionType::SET_WRITABLE,
         [this, inner, writable] { StorageItem(*inner_, inner.getPath()).setWritable(writable); }, nullptr);
}

void OverlayProvider::doCopyFile(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const {
  OVERLAY_TRACE_IRI(src);
  lazyInitialize();
  // The whole copy is one change: a flush waits until its streams are closed.
  auto const pass = flushGate_.enter();
  if (doFileExists(dst) && policy != fsp::ReplacementPolicy::Always) throw Exception(ErrorCode::AlreadyExists, dst);
  if (doFolderExists(dst)) throw Exception(ErrorCode::AlreadyExists, dst);
  auto source = doOpenReadOnlyStream(src);
  fsp::ByteStreamOpenOptions options;
  options.truncate = true;
  auto destination = doOpenStream(dst, options);
  try {
    fsp::GenericByteStreamDevice<fsp::ByteStream> in(source);
    fsp::GenericByteStreamDevice<fsp::ByteStream> out(destination);
    std::vector<char> buffer(4096);
    for (;;) {
      auto const n = in.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
      if (n <= 0) break;
      for (std::streamsize done = 0; done < n;) done += out.write(buffer.data() + done, n - done);
    }
    in.close();
    out.close();
  } catch (Exception const&) {
    throw;
  } catch (fsp::ByteStreamFailure const& e) {
    throw Exception(e.getErrorCode(), dst, e.what());
  } catch (std::exception const& e) {
    throw Exception(ErrorCode::TransientFailure, dst, e.what());
  }
}

// --- Queries -------------------------------------------------------------------------
// Answered from the caches under the path lock, so a query waits for a running mutation
// of the same IRI or an ancestor and never sees a half-applied change.

bool OverlayProvider::doFileExists(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  auto lock = pathLocks_.acquire(inner);
  return hasFileRecord(inner);
}

bool OverlayProvider::doFolderExists(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  auto lock = pathLocks_.acquire(inner);
  return hasFolderRecord(inner);
}

fsp::FileAttributes OverlayProvider::doGetFileAttributes(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  auto lock = pathLocks_.acquire(inner);
  auto file = getFileMetadata(inner);
  if (!file) throw Exception(ErrorCode::DoesNotExist, iri);
  return fsp::FileAttributes(file->getFileSize(), file->getLastModified(), file->isWritable());
}

fsp::FolderAttributes OverlayProvider::doGetFolderAttributes(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  auto lock = pathLocks_.acquire(inner);
  auto folder = folderRecord(inner);
  if (!folder) throw Exception(ErrorCode::DoesNotExist, iri);
  return fsp::FolderAttributes(folder->getLastModified(), folder->isWritable());
}

fsp::ExtendedAttributes OverlayProvider::doGetExtendedAttributes(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  auto lock = pathLocks_.acquire(inner);
  if (auto folder = folderRecord(inner)) return folder->getExtendedAttributes();
  if (auto file = getFileMetadata(inner)) return file->getExtendedAttributes();
  throw Exception(ErrorCode::DoesNotExist, iri);
}

template <class Pred>
fsp::FolderEntryIteratorPtr OverlayProvider::list(StorageIRI const& iri) const {
  lazyInitialize();
  auto const inner = getInnerMostURL(iri);
  triggerLatchForRead();
  auto lock = pathLocks_.acquire(inner);
  if (inner.getPath() != u"/" && !folderRecord(inner)) throw Exception(ErrorCode::DoesNotExist, iri);
  auto container = forwarding(iri, [&] { return metadataCache_->loadAndGetFolderContainer(inner); });
  if (!container) throw Exception(ErrorCode::DoesNotExist, iri);
  return std::make_unique<FolderIterator<Pred>>(container->getAllContent());
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListAll(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  return list<ListAllPred>(iri);
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFiles(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  return list<ListFilesPred>(iri);
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFolders(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  return list<ListFoldersPred>(iri);
}

// --- Streams -------------------------------------------------------------------------

namespace {

// Code 1 for a name holding a control character (C0, DEL or C1).
void checkName(fsp::StorageIRI const& iri) {
  for (char16_t const unit : iri.getName()) {
    if (unit < 32 || (unit >= 127 && unit <= 159)) throw Exception(ErrorCode::InvalidName, iri);
  }
}

}  // namespace

fsp::ByteStreamPtr OverlayProvider::openThroughCache(StorageIRI const& iri, StorageIRI const& inner,
                                                     fsp::ByteStreamOpenOptions const* options) const {
  if (options) {
    triggerLatch();
  } else {
    triggerLatchForRead();
  }
  // A stream opened for writing changes the caches; a read-only one does not, and must
  // not wait for a flush.
  std::optional<FlushGate::Pass> pass;
  if (options) pass.emplace(flushGate_.enter());
  auto record = fileRecord(inner);
  if (!record) {
    if (!options || options->openMode == fsp::ByteStreamOpenOptions::OpenExisting) {
      throw Exception(ErrorCode::DoesNotExist, iri);
    }
    checkName(iri);
    contentCache_->invalidate(inner, false);
    auto parent = folderRecord(inner.getParent());
    if (!parent) throw Exception(ErrorCode::DoesNotExist, iri.getParent());
    if (!parent->isWritable()) throw Exception(ErrorCode::NotWritable, iri.getParent());
    record = std::make_shared<FileMetadata>(inner, true);
    record->withLastModified(boost::posix_time::microsec_clock::universal_time()).withWritable(true).withSize(0);
    metadataCache_->addFileMetadata(record);
  }
  if (options && !record->isWritable()) throw Exception(ErrorCode::NotWritable, iri);
  // The watermark is read before an entry is made from the record: a record from a
  // listing reads it from the store on first use, and the entry must carry the watermark
  // of the content it is about to fetch, not one read after a change made elsewhere.
  record->getWatermark();
  // Compared as a record, not as that watermark: a close transaction may refresh the
  // entry's own record in place before the check, and that must not drop the entry.
  contentCache_->invalidateOldEntry(inner, *record, false);
  auto entry = contentCache_->retrieveEntry(inner, inner_, record, executorHandle_, quota_, timedLatch_,
                                            workingFileEntryParams(), shutDown_);
  if (!options) return WorkingFileByteStream::openReadOnly(entry);
  auto stream = std::make_unique<WorkingFileByteStream>(entry, *options);
  // What this stream writes is the overlay's own change until the close path has put it
  // into the store (which thaws the record): a folder listed again meanwhile keeps this
  // record instead of the store's older one.
  auto const written = entry->getMetadata();
  written->freeze();
  // The folder must show (and keep) the record the writes go to: an entry made before the
  // folder was last listed holds an older record object than the folder does, and the
  // folder may have been invalidated since `record` was looked up (before the freeze, so
  // the invalidation did not save it).
  metadataCache_->putFileMetadata(written);
  return stream;
}

fsp::ByteStreamPtr OverlayProvider::doOpenStream(StorageIRI const& iri, fsp::ByteStreamOpenOptions const& options) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  if (!fallback_.load(std::memory_order_acquire)) {
    try {
      return openThroughCache(iri, inner, &options);
    } catch (CachingErrorException const&) {
      getLogger().log(Severity::Info, "Caching error when opening stream. Falling back.");
      doFlushFilesystemImpl();
      fallback_.store(true, std::memory_order_release);
    }
  }
  auto item = StorageItem(*inner_, inner.getPath());
  return forwarding(iri, [&] { return item.openStream(options); });
}

fsp::ByteStreamPtr OverlayProvider::doOpenReadOnlyStream(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  if (!fallback_.load(std::memory_order_acquire)) {
    try {
      return openThroughCache(iri, inner, nullptr);
    } catch (CachingErrorException const&) {
      getLogger().log(Severity::Info, "Caching error when opening read-only stream. Falling back.");
      doFlushFilesystemImpl();
      fallback_.store(true, std::memory_order_release);
    }
  }
  auto item = StorageItem(*inner_, inner.getPath());
  return forwarding(iri, [&] { return item.openReadOnlyStream(); });
}

// --- Events: passed straight through to the inner store ------------------------------

void OverlayProvider::doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                               std::vector<foundation::storage::events::Kind> const& kinds,
                                               foundation::storage::events::RecursiveFileWatching recursive) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto item = innerItemFor(iri);
  forwarding(iri, [&] { item.publishFolderEvents(callback, kinds, recursive); });
}

void OverlayProvider::doPublishFileEventsFor(StorageIRI const& iri,
                                             foundation::storage::events::Callback const& callback) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto item = innerItemFor(iri);
  forwarding(iri, [&] { item.publishFileEvents(callback); });
}

void OverlayProvider::doStopPublishingEventsFor(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto const inner = getInnerMostURL(iri);
  auto item = innerItemFor(iri);
  forwarding(iri, [&] {
    if (hasFileRecord(inner)) item.stopPublishingFileEvents();
    if (hasFolderRecord(inner)) item.stopPublishingFolderEvents();
  });
}

// --- Provider-wide operations --------------------------------------------------------

bool OverlayProvider::doHasFeature(fsp::ExtendedFeature const& feature) const {
  OVERLAY_TRACE();
  lazyInitialize();
  return inner_->hasFeature(feature) && static_cast<int>(feature) == 0;
}

fsp::ProviderStorageInfo OverlayProvider::doGetProviderStorageInfo(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  triggerLatchForRead();
  auto const capacity = quota_ ? quota_->getTotalCapacity() : std::nullopt;
  auto const available = quota_ ? quota_->getSpaceAvailable() : std::nullopt;
  if (!capacity || !available) {
    getLogger().log(Severity::Error, "Quota information unavailable");
    throw Exception(ErrorCode::TransientFailure, iri);
  }
  return fsp::ProviderStorageInfo().withStorageCapacity(*capacity).withSpaceOccupied(*capacity - *available);
}

void OverlayProvider::doFlushFilesystem() {
  OVERLAY_TRACE();
  lazyInitialize();
  doFlushFilesystemImpl();
}

void OverlayProvider::doFlushFilesystemImpl() const {
  getLogger().log(Severity::Debug, "Flushing filesystem");
  auto const start = std::chrono::steady_clock::now();
  // While this flush waits, close transactions hand it their reads of attributes back
  // into records (see WorkingFileEntry): it drops those records below, or makes the reads.
  std::vector<FlushAttributeReads::Read> deferredReads;
  if (auto executor = this->executor()) {
    flushReads_->beginWaiting();
    try {
      executor->waitForPendingToFinish();
    } catch (...) {
      for (auto const& read : flushReads_->endWaiting()) read();
      throw;
    }
    deferredReads = flushReads_->endWaiting();
  } else {
    getLogger().log(Severity::Error, "BackgroundExecutor should be in an initialized state.");
  }
  // The caches are emptied only when they hold nothing the store lacks. A stream still
  // open for writing holds changes that are not in the store yet (what it has written
  // since its last payload, and its close), and so does an operation that changed the
  // caches just as the queue ran dry and queued its transaction after: emptying the
  // caches then would show the store's older state, and leave the stream with an entry
  // the cache no longer knows. The gate keeps operations out while this is decided; what
  // they queued before it closed is drained once more (normally nothing), and the caches
  // are kept if a change of the overlay's own is still on its way after that (one queued
  // by a stream's close meanwhile). Everything acknowledged before the flush has reached
  // the store either way.
  bool emptied = false;
  {
    auto const closed = flushGate_.close();
    bool writing = false;
    updateContentCache([&] { writing = contentCache_->hasEntryOpenForWriting(); });
    if (!writing) {
      if (auto executor = this->executor()) executor->waitForPendingToFinish();
    }
    bool const queued = executorHandle_->changesInFlight() > 0;
    if (writing || queued) {
      for (auto const& read : deferredReads) read();
      getLogger().log(Severity::Debug, writing ? "Caches kept: a stream is open for writing"
                                               : "Caches kept: changes were queued during the flush");
    } else {
      dropContentCache();
      metadataCache_->invalidateAll();
      emptied = true;
    }
  }
  if (emptied) {
    // Emptying the cache ended a population under way; once it has stopped, everything it
    // had to report (a folder it could not list) has been reported.
    try {
      metadataCache_->doWaitForFuturePopulationToFinish();
    } catch (...) {
      // Its failure was reported to the listing-failure observer and logged.
    }
  }
  auto const elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  getLogger().log(Severity::Debug, "Flush took " + std::to_string(elapsed) + "ms");
}

void OverlayProvider::doInvalidate(StorageIRI const& iri) {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize(iri);
  auto root = getInnerMostURL(iri).withPath(u"/");
  auto lock = pathLocks_.acquire(root);
  dropContentCache();
  metadataCache_->invalidateAll();
  fsp::invalidateProvider(*inner_);
}

std::vector<fsp::extensions::UndeliveredChange> OverlayProvider::takeUndeliveredChanges() {
  return deliveryReport_->takeUndelivered();
}

std::vector<fsp::extensions::LocalCacheFailure> OverlayProvider::takeLocalCacheFailures() {
  return deliveryReport_->takeLocalCacheFailures();
}

std::vector<fsp::extensions::UnlistedFolder> OverlayProvider::takeUnlistedFolders() {
  return deliveryReport_->takeUnlisted();
}

fsp::extensions::QueueFigures OverlayProvider::getQueueFigures() const { return executorHandle_->queueFigures(); }

void OverlayProvider::waitForDelivery(StorageIRI const& location) {
  OVERLAY_TRACE_IRI(location);
  lazyInitialize(location);
  // The marker's promise is kept when the task is destroyed, whether it ran or a
  // shutting-down executor dropped it, so the caller never waits for a task that will
  // not run.
  struct Marker {
    std::promise<void> done;
    ~Marker() { done.set_value(); }
  };
  std::future<void> done;
  {
    auto marker = std::make_shared<Marker>();
    done = marker->done.get_future();
    executorHandle_->executeTouching([marker] {}, ObservableTransactionType::WAKEUP_FLUSH, 0.0,
                                     touching(getInnerMostURL(location)));
  }
  done.wait();
}

void OverlayProvider::doShutdown() {
  OVERLAY_TRACE();
  auto root = getInnerMostURL(inner_->getLocation()).withPath(u"/");
  auto lock = pathLocks_.acquire(root);
  // The queue is cut before the flag goes up: queued transactions check the flag, and a
  // transaction skipped by the flag while a later one still ran would leave the inner
  // store in a state the caller never had. Cut first, only a tail is dropped.
  std::shared_ptr<IExecutor> executor;
  std::shared_ptr<EventListener> listener;
  std::shared_ptr<TimedLatch> latch;
  std::shared_ptr<IQuotaAccountant> quota;
  {
    std::lock_guard guard(initMutex_);
    executor = executor_;
    listener = eventListener_;
    latch = timedLatch_;
    quota = quota_;
  }
  if (executor) executor->shutdown(true);
  shutDown_.store(true, std::memory_order_release);
  if (listener) listener->stopHandling();
  if (latch) latch->close();
  if (quota) quota->shutdown();
  if (executor) executor->join();
  inner_->shutdownProvider();
}

void OverlayProvider::doConfigure(boost::property_tree::ptree config) {
  OVERLAY_TRACE();
  inner_->configure(config);
  refuseUnworkableOverlayOptions(config);
  OverlayOptions options = currentOptions();
  // Acted on anew by each configuration that gives them: the cache root is set again, and
  // switching synchronous mode on installs a new executor each time.
  options.cacheRoot.reset();
  options.synchronous = false;
  try {
    options.readConfiguration(config, [](OverlayOptionKey const& key, std::string const& text) {
      if (key.loggedAs != nullptr) logConfiguration(key.loggedAs, text);
    });
  } catch (std::exception const& e) {
    getLogger().log(Severity::Error, "Error parsing configuration data.");
    getLogger().log(Severity::Debug, std::string("Exception caught: ") + e.what());
  }
  // What was read before a key that failed stays applied.
  if (options.cacheRoot) {
    contentCache_->withCacheRoot(*options.cacheRoot);
    ownCacheRoot_.store(false, std::memory_order_release);
  }
  maxQueueWeight_.store(options.maxQueueWeight, std::memory_order_release);
  minQueueItemWeight_.store(options.minQueueItemWeight, std::memory_order_release);
  persistContentCache_.store(options.persistContentCache, std::memory_order_release);
  maxReadPayloadSize_.store(options.maxReadPayloadSize, std::memory_order_release);
  maxWritePayloadSize_.store(options.maxWritePayloadSize, std::memory_order_release);
  transfers_.store(options.transfers, std::memory_order_release);
  echoWindowMs_.store(options.echoWindowMs, std::memory_order_release);
  narrowInvalidation_.store(options.narrowInvalidation, std::memory_order_release);
  holdEventsForChangesOnly_.store(options.holdEventsForChangesOnly, std::memory_order_release);
  bool const switchToSynchronous = options.synchronous;
  if (switchToSynchronous) synchronous_.store(true, std::memory_order_release);
  disableContentCache_.store(options.disableContentCache, std::memory_order_release);
  backslashToForwardSlash_.store(options.backslashToForwardSlash, std::memory_order_release);
  if (switchToSynchronous) {
    std::shared_ptr<IExecutor> previous;
    {
      std::lock_guard lock(initMutex_);
      // Its idle callback empties the recycle bin, as the queue's does when it runs dry.
      previous = std::exchange(executor_, std::make_shared<SynchronousExecutor>(
                                              [cache = contentCache_.get()] { cache->emptyRecycleBin(); }));
      executorHandle_->set(executor_);
    }
    // The replaced executor is released by reference count; a queue worker must end
    // before its thread object goes, so it finishes what it holds first.
    if (previous) {
      previous->shutdown(false);
      previous->join();
    }
  }
  double const weight = maxQueueWeight_.load(std::memory_order_acquire);
  if (weight < 0) throw std::logic_error("overlay.maxQueueWeight < 0. Value must be >= 0");
  std::lock_guard lock(initMutex_);
  if (executor_) executor_->setMaxQueueWeight(weight);
}

}  // namespace storage::overlayprovider
