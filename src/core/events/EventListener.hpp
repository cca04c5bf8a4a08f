// EventListener: turns changes made elsewhere in the inner store into invalidations of
// the overlay's caches.
//
// At construction the listener subscribes (recursively) to the inner store's folder
// events; file events arrive through the same subscription, told apart by their entry
// type. Each event becomes an EXTERNAL_EVENT task of weight 0 on the provider's
// executor, so it runs after the overlay's own queued transactions:
//   file Added/Modified    -> the parent folder's tree is given back to the quota and
//                             queued for invalidation in the metadata cache
//   file Removed           -> the file is given back to the quota and dropped
//   folder Added           -> as file Added
//   folder Modified        -> a debounced invalidation of the folder: it runs only if
//                             no other folder event (of any folder) came after it
//   folder Removed         -> the folder's tree is given back and queued for invalidation
//   folder Refresh of "/"  -> both caches are emptied at once, on the event thread
// While the overlay itself writes to the inner store (the timed latch calls pause() and
// later unpause()), events are collected instead, one per IRI (the first one wins), and
// replayed in ascending IRI order on unpause().
//
// Two refinements, each switched on by a setting (EventListenerOptions):
//   - Given a record of the overlay's own changes (OwnChanges, "overlay.echoWindow" above
//     0), a folder event that says what one of the overlay's own folder creations,
//     removals or moves made, while it is on its way or within the record's window after,
//     is taken as its echo and dropped when it arrives (logged at Debug): the caches
//     already hold what the change made.
//   - Narrow invalidation ("overlay.narrowInvalidation"): instead of the folder above the
//     changed item with all of its tree, only what the change can have made stale is
//     dropped (MetadataCache::enqueueItemInvalidation): the listing of the item's folder,
//     the item's own listing, and for a folder added or removed everything below it. The
//     quota figures are given back as above.
// Given a feed (EventListenerOptions::applied), each queued task tells it the event's
// location once it has done its work, and so does the immediate root refresh: from then
// on the caches no longer answer with the item as it was.
//
// A failed subscription is logged ("Error subscribing to inner provider.") and
// survived. After stopHandling() every event, pause() and unpause() does nothing, and
// collected events are never replayed. The subscription is not cancelled (the inner
// store's subscriptions are per IRI and may be shared with the overlay's callers); the
// callback outlives the listener harmlessly: once the listener is destroyed it drops
// every event.
//
// Thread-safety: handle() runs on the inner store's event thread, pause()/unpause() on
// writers' threads, the queued tasks on the executor's worker. `mutex_` guards the
// paused flag and the collected events; handleEvent() is always called without it.
#pragma once

#include <core/events/AppliedChangeFeed.hpp>
#include <core/exec/IExecutor.hpp>
#include <core/exec/OwnChanges.hpp>
#include <core/quota/IQuotaAccountant.hpp>

#include <foundation/storage/events/Events.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <boost/property_tree/ptree.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace storage::overlayprovider {

class ContentCache;
class MetadataCache;

// What a listener does beyond the written handling of events (see above).
struct EventListenerOptions {
  std::shared_ptr<OwnChanges const> ownChanges;  // null: no event is taken as an echo
  bool narrowInvalidation = false;
  std::shared_ptr<AppliedChangeFeed const> applied;  // null: nobody is told
};

class EventListener {
 public:
  using StorageIRI = foundation::storage::provider::StorageIRI;
  using Kind = foundation::storage::events::Kind;
  using EntryType = foundation::storage::events::EntryType;

  // Subscribes to `inner`'s events. The caches must outlive the listener; queued tasks
  // refer to them and to the quota accountant, so the executor must be drained or shut
  // down before the caches go.
  using Options = EventListenerOptions;
  EventListener(foundation::storage::provider::StorageItem const& inner, MetadataCache& metadataCache,
                ContentCache& contentCache, std::shared_ptr<IExecutor> executor,
                std::shared_ptr<IQuotaAccountant> quota, Options options = {});
  // Stops handling; a late event from the inner store is dropped.
  ~EventListener();

  EventListener(EventListener const&) = delete;
  EventListener& operator=(EventListener const&) = delete;

  // From now on events, pause() and unpause() do nothing.
  void stopHandling();
  // Collect events instead of acting on them. Not counted: one unpause() ends any
  // number of pauses.
  void pause();
  // Act on events again, first on the collected ones in ascending IRI order.
  void unpause();

  // The subscription callback; only `location` (the IRI that changed), `kind` and
  // `entryType` are used.
  void handle(Kind const& kind, StorageIRI const& root, StorageIRI const& location, EntryType const& entryType,
              boost::property_tree::ptree tree);
  void handleEvent(StorageIRI const& location, Kind const& kind, EntryType const& entryType);
  void handleFileEvent(StorageIRI const& location, Kind const& kind);
  void handleFolderEvent(StorageIRI const& location, Kind const& kind);

 private:
  // Lets the inner store's copy of the callback find out that the listener is gone.
  struct Relay {
    std::mutex mutex;                    // guards target
    EventListener* target = nullptr;     // null once the listener is destroyed
  };
  using Clock = std::chrono::steady_clock;

  // Sets the time of the last folder event to now and returns it.
  Clock::time_point stampFolderEvent();
  // The work of an event about `item`: `folder`'s tree given back to the quota, then
  // the invalidation of `folder` in the metadata cache, or with narrow invalidation that
  // of `item` (with what lies below it when `below`).
  std::function<void()> invalidation(StorageIRI const& item, bool below, StorageIRI const& folder) const;
  // Queues `work`, then telling the feed (if any) about `location`, as an EXTERNAL_EVENT
  // task of weight 0.
  void queueTask(std::function<void()> work, StorageIRI const& location);

  MetadataCache& metadataCache_;
  ContentCache& contentCache_;
  std::shared_ptr<Relay> const relay_;
  std::shared_ptr<IExecutor> const executor_;
  std::shared_ptr<IQuotaAccountant> const quota_;
  Options const options_;
  bool paused_ = false;                                     // guarded by mutex_
  // When the last folder event reached the debouncing step; shared with queued tasks.
  std::shared_ptr<std::atomic<Clock::time_point>> const lastFolderEvent_;
  std::map<StorageIRI, std::pair<Kind, EntryType>> deferred_;  // guarded by mutex_
  std::mutex mutex_;  // guards paused_ and deferred_
  std::atomic<bool> handling_{true};
};

}  // namespace storage::overlayprovider
