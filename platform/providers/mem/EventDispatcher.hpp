// EventDispatcher: the change subscriptions of one `mem` store and the thread that
// delivers their events.
//
// Events are matched against the subscriptions when they are published and queued; one
// delivery thread per dispatcher, started when the first event is queued, calls the
// callbacks in publication order, with no lock of the store held. A subscription matches
// an event about the item at path P when
// - P is the subscribed item itself;
// - P lies below a subscribed folder: anywhere below for a recursive subscription,
//   directly inside it for a non-recursive one;
// - P is an ancestor of the subscribed item and the event is Removed or Refresh (the
//   subscribed item went with it, or may have changed).
// Folder subscriptions also filter by kind (an empty list means every kind).
//
// Thread-safe. publish() may be called with the store's tree mutex held (that keeps the
// queue in the order of the changes); nothing here takes that mutex.
#pragma once

#include "MemoryTree.hpp"

#include <foundation/storage/events/Events.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>

#include <boost/property_tree/ptree.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace providers::mem::detail {

struct Event {
  foundation::storage::events::Kind kind;
  Segments keyPath;  // match keys of the changed item
  foundation::storage::provider::StorageIRI location;
  foundation::storage::events::EntryType type;
  boost::property_tree::ptree details;
};

class EventDispatcher {
 public:
  enum class Scope { File, FolderDirect, FolderRecursive };

  EventDispatcher();
  // Delivers what is queued, then ends the delivery thread.
  ~EventDispatcher();
  EventDispatcher(EventDispatcher const&) = delete;
  EventDispatcher& operator=(EventDispatcher const&) = delete;

  // Adds a subscription for the item at `keyPath`, which callbacks name as `iri`.
  void subscribe(foundation::storage::provider::StorageIRI const& iri, Segments keyPath, Scope scope,
                 std::vector<foundation::storage::events::Kind> const& kinds,
                 foundation::storage::events::Callback callback);
  // Drops every subscription made for `keyPath`; events queued for them are not
  // delivered. Unless called from a callback, returns only once no callback of those
  // subscriptions is running.
  void unsubscribe(Segments const& keyPath);

  // True while any subscription exists; lets callers skip building events nobody gets.
  bool hasSubscribers() const { return subscriberCount_.load(std::memory_order_acquire) > 0; }

  // Queues `event` for every matching subscription, starting the delivery thread when
  // it is not running. Does not wait for delivery.
  void publish(Event const& event);

  // Blocks until every event queued so far has been delivered (returns at once when
  // called from a callback).
  void waitUntilDelivered();

  // Delivers what is queued, ends the delivery thread and drops every subscription.
  // Later events start a new thread.
  void shutdown();

 private:
  struct Subscription;
  struct Shared;

  static void deliveryLoop(std::shared_ptr<Shared> shared);
  // Stops the delivery thread after the queue is drained; joins it unless called on it.
  void stopThread();

  // Everything the delivery thread touches, kept alive by the thread itself so that a
  // dispatcher destroyed from a callback does not pull the ground from under it.
  std::shared_ptr<Shared> shared_;
  std::atomic<std::size_t> subscriberCount_{0};  // mirrors Shared::subscriptions.size(), written under its mutex
};

}  // namespace providers::mem::detail
