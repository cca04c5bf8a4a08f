#include <core/events/EventListener.hpp>

#include <core/content/ContentCache.hpp>
#include <core/util/Logger.hpp>
#include <core/metadata/MetadataCache.hpp>

#include <foundation/log/ScopedTrace.hpp>
#include <foundation/log/Severity.hpp>

#include <algorithm>

namespace storage::overlayprovider {

namespace {

using foundation::log::Severity;
namespace fsp = foundation::storage::provider;
namespace events = foundation::storage::events;

constexpr char const* kSourceFile = "src/core/events/EventListener.cpp";

#define LISTENER_TRACE() \
  foundation::log::ScopedTrace listenerTrace_(getLogger(), __PRETTY_FUNCTION__, kSourceFile, __LINE__)

void logLocation(char const* signature, fsp::StorageIRI const& location) {
  if (!getLogger().isEnabled(Severity::Trace)) return;
  getLogger().log(Severity::Trace, std::string(signature) + " location=" + location.toUtf8());
}

}  // namespace

EventListener::EventListener(fsp::StorageItem const& inner, MetadataCache& metadataCache, ContentCache& contentCache,
                             std::shared_ptr<IExecutor> executor, std::shared_ptr<IQuotaAccountant> quota,
                             Options options)
    : metadataCache_(metadataCache),
      contentCache_(contentCache),
      relay_(std::make_shared<Relay>()),
      executor_(std::move(executor)),
      quota_(std::move(quota)),
      options_(std::move(options)),
      lastFolderEvent_(std::make_shared<std::atomic<Clock::time_point>>(Clock::now())) {
  LISTENER_TRACE();
  relay_->target = this;
  std::weak_ptr<Relay> const relay = relay_;
  events::Callback callback = [relay](Kind const& kind, StorageIRI const& root, StorageIRI const& location,
                                      EntryType const& entryType, boost::property_tree::ptree tree) {
    auto const live = relay.lock();
    if (!live) return;
    std::lock_guard lock(live->mutex);
    if (live->target) live->target->handle(kind, root, location, entryType, std::move(tree));
  };
  try {
    inner.publishFolderEvents(callback, {Kind::Added, Kind::Removed, Kind::Modified, Kind::Refresh},
                              events::RecursiveFileWatching::Enabled);
  } catch (...) {
    getLogger().log(Severity::Error, "Error subscribing to inner provider.");
  }
}

EventListener::~EventListener() {
  stopHandling();
  std::lock_guard lock(relay_->mutex);
  relay_->target = nullptr;
}

void EventListener::stopHandling() {
  LISTENER_TRACE();
  handling_.store(false);
}

void EventListener::pause() {
  LISTENER_TRACE();
  if (!handling_.load()) return;
  std::lock_guard lock(mutex_);
  paused_ = true;
}

void EventListener::unpause() {
  LISTENER_TRACE();
  if (!handling_.load()) return;
  std::map<StorageIRI, std::pair<Kind, EntryType>> collected;
  {
    std::lock_guard lock(mutex_);
    paused_ = false;
    collected.swap(deferred_);
  }
  for (auto const& [location, event] : collected) handleEvent(location, event.first, event.second);
}

void EventListener::handle(Kind const& kind, StorageIRI const&, StorageIRI const& location,
                           EntryType const& entryType, boost::property_tree::ptree) {
  LISTENER_TRACE();
  if (!handling_.load()) return;
  if (options_.ownChanges && options_.ownChanges->isEcho(location, kind, entryType)) {
    if (getLogger().isEnabled(Severity::Debug)) {
      getLogger().log(Severity::Debug, "Taken as the echo of the overlay's own change: " + location.toUtf8());
    }
    return;
  }
  {
    std::lock_guard lock(mutex_);
    if (paused_) {
      deferred_.try_emplace(location, kind, entryType);  // an earlier event of the IRI wins
      return;
    }
  }
  handleEvent(location, kind, entryType);
}

void EventListener::handleEvent(StorageIRI const& location, Kind const& kind, EntryType const& entryType) {
  LISTENER_TRACE();
  if (entryType == EntryType::File) {
    handleFileEvent(location, kind);
  } else {
    handleFolderEvent(location, kind);
  }
}

EventListener::Clock::time_point EventListener::stampFolderEvent() {
  // Strictly later than the stamp before, even where the clock did not move on, so that
  // a queued debounced invalidation always sees that it was superseded.
  auto previous = lastFolderEvent_->load();
  Clock::time_point stamp;
  do {
    stamp = std::max(Clock::now(), previous + Clock::duration(1));
  } while (!lastFolderEvent_->compare_exchange_weak(previous, stamp));
  return stamp;
}

void EventListener::queueTask(std::function<void()> work, StorageIRI const& location) {
  executor_->execute(
      [work = std::move(work), applied = options_.applied, location] {
        work();
        if (applied) applied->notify(location);
      },
      ObservableTransactionType::EXTERNAL_EVENT, 0);
}

std::function<void()> EventListener::invalidation(StorageIRI const& item, bool below, StorageIRI const& folder) const {
  return [quota = quota_, &metadataCache = metadataCache_, narrow = options_.narrowInvalidation, item, below, folder] {
    if (quota) quota->removeFolderTree(folder);
    if (narrow) {
      metadataCache.enqueueItemInvalidation(item, below);
    } else {
      metadataCache.enqueueInvalidationProcess(folder);
    }
  };
}

void EventListener::handleFileEvent(StorageIRI const& location, Kind const& kind) {
  LISTENER_TRACE();
  logLocation(__PRETTY_FUNCTION__, location);
  switch (kind) {
    case Kind::Added:
    case Kind::Modified:
      queueTask(invalidation(location, false, location.getParent()), location);
      break;
    case Kind::Removed:
      queueTask(
          [quota = quota_, &metadataCache = metadataCache_, location] {
            if (quota) quota->removeFile(location);
            metadataCache.removeFile(location);
          },
          location);
      break;
    default:
      break;
  }
}

void EventListener::handleFolderEvent(StorageIRI const& location, Kind const& kind) {
  LISTENER_TRACE();
  logLocation(__PRETTY_FUNCTION__, location);
  if (kind == Kind::Refresh && location.getPath() == u"/") {
    metadataCache_.invalidateAll();
    contentCache_.invalidateAll();
    if (options_.applied) options_.applied->notify(location);
    return;
  }
  auto const stamp = stampFolderEvent();
  switch (kind) {
    case Kind::Added:
      queueTask(invalidation(location, true, location.getParent()), location);
      break;
    case Kind::Modified:
      executor_->execute(
          [lastFolderEvent = lastFolderEvent_, stamp, location, invalidate = invalidation(location, false, location),
           applied = options_.applied] {
            // A later folder event anywhere supersedes this one.
            if (lastFolderEvent->load() != stamp) return;
            getLogger().log(Severity::Info, "Triggering invalidation " + location.toUtf8());
            invalidate();
            if (applied) applied->notify(location);
          },
          ObservableTransactionType::EXTERNAL_EVENT, 0);
      break;
    case Kind::Removed:
      queueTask(invalidation(location, true, location), location);
      break;
    default:
      break;
  }
}

}  // namespace storage::overlayprovider
