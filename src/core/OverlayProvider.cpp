#include <core/OverlayProvider.hpp>

#include <core/BackendExecutor.hpp>
#include <core/IRIHelpers.hpp>
#include <core/Logger.hpp>
#include <core/SynchronousExecutor.hpp>

#include <foundation/log/ScopedTrace.hpp>
#include <foundation/storage/provider/Exception.hpp>

#include <boost/property_tree/ptree.hpp>

#include <optional>
#include <sstream>
#include <stdexcept>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;
using fsp::ErrorCode;
using fsp::Exception;

constexpr char const* kSourceFile = "src/core/OverlayProvider.cpp";

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

// Stream extraction with boolalpha: only the text "true" reads as true.
bool readsTrue(std::string const& text) {
  std::istringstream in(text);
  bool value = false;
  in >> std::boolalpha >> value;
  return !in.fail() && value;
}

// The metadata cache given, or a new one that matches names as the inner store does.
std::shared_ptr<MetadataCache> metadataCacheFor(std::shared_ptr<fsp::StorageItem> const& inner,
                                                std::unique_ptr<MetadataCache> given) {
  if (given) return std::shared_ptr<MetadataCache>(std::move(given));
  bool const caseSensitive = inner->getFilenameSensitivity() == fsp::FilenameSensitivity::CaseSensitive;
  return std::make_shared<MetadataCache>(inner, caseSensitive);
}

}  // namespace

OverlayProvider::OverlayProvider(StorageItem inner) : OverlayProvider(std::move(inner), nullptr, nullptr) {}

OverlayProvider::OverlayProvider(StorageItem inner, std::shared_ptr<IExecutor> executor)
    : OverlayProvider(std::move(inner), nullptr, std::move(executor)) {}

OverlayProvider::OverlayProvider(StorageItem inner, std::unique_ptr<MetadataCache> metadataCache,
                                 std::shared_ptr<IExecutor> executor)
    : inner_(std::make_shared<StorageItem>(std::move(inner))),
      metadataCache_(metadataCacheFor(inner_, std::move(metadataCache))),
      executor_(std::move(executor)) {}

OverlayProvider::~OverlayProvider() {
  try {
    doShutdown();
  } catch (std::exception const& e) {
    getLogger().log(Severity::Diagnostic, std::string("Exception caught: ") + e.what());
  } catch (...) {
    getLogger().log(Severity::Diagnostic, "Exception caught: unknown exception");
  }
}

void OverlayProvider::lazyInitialize() const {
  std::call_once(initOnce_, [this] {
    boost::property_tree::ptree record;
    record.put("overlay.initialization.maxQueueWeight", maxQueueWeight_.load(std::memory_order_acquire));
    getLogger().logJson(Severity::Debug, record);
    {
      std::lock_guard lock(initMutex_);
      if (!executor_) {
        // The idle callback empties the content cache's recycle bin once that cache is
        // part of the provider; nothing is held in a bin before then.
        executor_ = std::make_shared<BackendExecutor>([] {}, maxQueueWeight_.load(std::memory_order_acquire));
      }
    }
    // Event handling is paused and resumed through the latch; the callbacks act on the
    // event listener, which subscribes to the inner store's changes.
    timedLatch_ = std::make_shared<TimedLatch>([] {}, [] {}, TimedLatch::timeoutFromEnvironment());
    metadataCache_->populateWholeFolderTreeWhenPossible(synchronous_.load(std::memory_order_acquire));
  });
}

std::shared_ptr<IExecutor> OverlayProvider::executor() const {
  std::lock_guard lock(initMutex_);
  return executor_;
}

std::shared_ptr<TimedLatch> OverlayProvider::timedLatch() const {
  lazyInitialize();
  return timedLatch_;
}

void OverlayProvider::triggerLatch() const {
  if (timedLatch_) timedLatch_->trigger();
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

// --- Mutations -----------------------------------------------------------------------
// Each changes the inner store under the path lock, with the latch triggered so that the
// inner store's echo of the change is not taken for a change made elsewhere.

void OverlayProvider::doCreateFile(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.createFile(); });
}

void OverlayProvider::doCreateFolder(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.createFolder(); });
}

void OverlayProvider::doCreateFolderRecursive(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.createFolderRecursive(); });
}

void OverlayProvider::doRemoveFile(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.removeFile(); });
}

void OverlayProvider::doMoveFile(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const {
  OVERLAY_TRACE_IRI(src);
  lazyInitialize();
  auto from = innerItemFor(src);
  auto to = innerItemFor(dst);
  triggerLatch();
  auto lock = pathLocks_.acquirePair(from.getLocation(), to.getLocation());
  forwarding(src, [&] { from.moveFile(to.getLocation(), policy); });
}

void OverlayProvider::doRemoveFolder(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.removeFolder(); });
}

void OverlayProvider::doRemoveFolderRecursively(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.removeFolderRecursively(); });
}

void OverlayProvider::doMoveFolder(StorageIRI const& src, StorageIRI const& dst,
                                   fsp::ReplacementPolicy const& policy) const {
  OVERLAY_TRACE_IRI(src);
  lazyInitialize();
  auto from = innerItemFor(src);
  auto to = innerItemFor(dst);
  triggerLatch();
  auto lock = pathLocks_.acquirePair(from.getLocation(), to.getLocation());
  forwarding(src, [&] { from.moveFolder(to.getLocation(), policy); });
}

void OverlayProvider::doCopyFile(StorageIRI const& src, StorageIRI const& dst, fsp::ReplacementPolicy const& policy) const {
  OVERLAY_TRACE_IRI(src);
  lazyInitialize();
  auto from = innerItemFor(src);
  auto to = innerItemFor(dst);
  triggerLatch();
  forwarding(src, [&] { from.copyFile(to.getLocation(), policy); });
}

void OverlayProvider::doSetLastModified(StorageIRI const& iri, boost::posix_time::ptime const& time) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.setLastModified(time); });
}

void OverlayProvider::doSetWritable(StorageIRI const& iri, bool writable) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  auto lock = pathLocks_.acquire(item.getLocation());
  forwarding(iri, [&] { item.setWritable(writable); });
}

// --- Queries -------------------------------------------------------------------------

bool OverlayProvider::doFileExists(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.fileExists(); });
}

bool OverlayProvider::doFolderExists(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.folderExists(); });
}

fsp::FileAttributes OverlayProvider::doGetFileAttributes(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.getFileAttributes(); });
}

fsp::FolderAttributes OverlayProvider::doGetFolderAttributes(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.getFolderAttributes(); });
}

fsp::ExtendedAttributes OverlayProvider::doGetExtendedAttributes(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.getExtendedAttributes(); });
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListAll(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  return forwarding(iri, [&] { return item.listAll(); });
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFiles(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  return forwarding(iri, [&] { return item.listFiles(); });
}

fsp::FolderEntryIteratorPtr OverlayProvider::doListFolders(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  return forwarding(iri, [&] { return item.listFolders(); });
}

// --- Streams -------------------------------------------------------------------------

fsp::ByteStreamPtr OverlayProvider::doOpenStream(StorageIRI const& iri, fsp::ByteStreamOpenOptions const& options) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  triggerLatch();
  return forwarding(iri, [&] { return item.openStream(options); });
}

fsp::ByteStreamPtr OverlayProvider::doOpenReadOnlyStream(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.openReadOnlyStream(); });
}

// --- Events: passed straight through to the inner store ------------------------------

void OverlayProvider::doPublishFolderEventsFor(StorageIRI const& iri, foundation::storage::events::Callback const& callback,
                                               std::vector<foundation::storage::events::Kind> const& kinds,
                                               foundation::storage::events::RecursiveFileWatching recursive) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  forwarding(iri, [&] { item.publishFolderEvents(callback, kinds, recursive); });
}

void OverlayProvider::doPublishFileEventsFor(StorageIRI const& iri,
                                             foundation::storage::events::Callback const& callback) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  forwarding(iri, [&] { item.publishFileEvents(callback); });
}

void OverlayProvider::doStopPublishingEventsFor(StorageIRI const& iri) const {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  auto item = innerItemFor(iri);
  forwarding(iri, [&] {
    if (item.fileExists()) item.stopPublishingFileEvents();
    if (item.folderExists()) item.stopPublishingFolderEvents();
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
  lazyInitialize();
  triggerLatch();
  // Answered by the inner store until quota figures are tracked by the overlay.
  auto item = innerItemFor(iri);
  return forwarding(iri, [&] { return item.getProviderStorageInfo(); });
}

void OverlayProvider::doFlushFilesystem() {
  OVERLAY_TRACE();
  lazyInitialize();
  metadataCache_->waitForFuturePopulationToFinish();
  doFlushFilesystemImpl();
}

void OverlayProvider::doFlushFilesystemImpl() const {
  getLogger().log(Severity::Debug, "Flushing filesystem");
  auto const start = std::chrono::steady_clock::now();
  if (auto executor = this->executor()) {
    executor->waitForPendingToFinish();
  } else {
    getLogger().log(Severity::Error, "BackgroundExecutor should be in an initialized state.");
  }
  metadataCache_->invalidateAll();
  auto const elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
  getLogger().log(Severity::Debug, "Flush took " + std::to_string(elapsed) + "ms");
}

void OverlayProvider::doInvalidate(StorageIRI const& iri) {
  OVERLAY_TRACE_IRI(iri);
  lazyInitialize();
  metadataCache_->waitForFuturePopulationToFinish();
  auto root = getInnerMostURL(iri).withPath(u"/");
  auto lock = pathLocks_.acquire(root);
  metadataCache_->invalidateAll();
  fsp::invalidateProvider(*inner_);
}

void OverlayProvider::doShutdown() {
  OVERLAY_TRACE();
  auto root = getInnerMostURL(inner_->getLocation()).withPath(u"/");
  auto lock = pathLocks_.acquire(root);
  shutDown_.store(true, std::memory_order_release);
  if (timedLatch_) timedLatch_->close();
  if (auto executor = this->executor()) {
    executor->shutdown(true);
    executor->join();
  }
  inner_->shutdownProvider();
}

void OverlayProvider::doConfigure(boost::property_tree::ptree config) {
  OVERLAY_TRACE();
  inner_->configure(config);
  bool switchToSynchronous = false;
  try {
    if (auto text = config.get_optional<std::string>("overlay.cacheRoot")) {
      // The content cache takes its root from here once it is part of the provider.
      logConfiguration("overlay.configuration.cacheRoot", *text);
    }
    if (auto text = config.get_optional<std::string>("overlay.maxQueueWeight")) {
      maxQueueWeight_.store(std::stod(*text), std::memory_order_release);
      logConfiguration("overlay.configuration.maxQueueWeight", *text);
    }
    if (auto text = config.get_optional<std::string>("overlay.minQueueItemWeight")) {
      minQueueItemWeight_.store(std::stod(*text), std::memory_order_release);
      logConfiguration("overlay.configuration.minQueueItemWeight", *text);
    }
    if (auto text = config.get_optional<std::string>("overlay.persistContentCache")) {
      if (*text == "true" || *text == "1") persistContentCache_.store(true, std::memory_order_release);
    }
    if (auto text = config.get_optional<std::string>("overlay.maxReadPayloadSize")) {
      maxReadPayloadSize_.store(std::stol(*text, nullptr, 10), std::memory_order_release);
      logConfiguration("overlay.configuration.maxReadPayloadSize", *text);
    }
    if (auto text = config.get_optional<std::string>("overlay.maxWritePayloadSize")) {
      maxWritePayloadSize_.store(std::stol(*text, nullptr, 10), std::memory_order_release);
      logConfiguration("overlay.configuration.maxWritePayloadSize", *text);
    }
    if (auto text = config.get_optional<std::string>("overlay.synchronous")) {
      if (readsTrue(*text)) {
        synchronous_.store(true, std::memory_order_release);
        switchToSynchronous = true;
      }
    }
    if (auto text = config.get_optional<std::string>("overlay.disableContentCache")) {
      if (readsTrue(*text)) disableContentCache_.store(true, std::memory_order_release);
    }
    if (auto text = config.get_optional<std::string>("overlay.backslashToForwardSlash")) {
      if (readsTrue(*text)) backslashToForwardSlash_.store(true, std::memory_order_release);
    }
  } catch (std::exception const& e) {
    getLogger().log(Severity::Error, "Error parsing configuration data.");
    getLogger().log(Severity::Debug, std::string("Exception caught: ") + e.what());
  }
  if (switchToSynchronous) {
    std::shared_ptr<IExecutor> previous;
    {
      std::lock_guard lock(initMutex_);
      previous = std::exchange(executor_, std::make_shared<SynchronousExecutor>([] {}));
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
