#include "EventDispatcher.hpp"

#include <algorithm>

namespace providers::mem::detail {

using foundation::storage::events::Kind;

struct EventDispatcher::Subscription {
  foundation::storage::provider::StorageIRI iri;
  Segments keyPath;
  Scope scope;
  std::vector<Kind> kinds;
  foundation::storage::events::Callback callback;
  bool active = true;  // guarded by Shared::mutex

  bool matches(Event const& event) const {
    if (scope != Scope::File && !kinds.empty() && std::find(kinds.begin(), kinds.end(), event.kind) == kinds.end()) {
      return false;
    }
    auto const& changed = event.keyPath;
    if (changed.size() >= keyPath.size() && std::equal(keyPath.begin(), keyPath.end(), changed.begin())) {
      auto const depth = changed.size() - keyPath.size();
      if (depth == 0) return true;
      if (scope == Scope::File) return false;
      return scope == Scope::FolderRecursive || depth == 1;
    }
    if (std::equal(changed.begin(), changed.end(), keyPath.begin())) {
      return event.kind == Kind::Removed || event.kind == Kind::Refresh;
    }
    return false;
  }
};

struct EventDispatcher::Shared {
  std::mutex mutex;  // guards every member below
  std::condition_variable changed;  // signalled when the queue, `delivering` or `running` change
  std::vector<std::shared_ptr<Subscription>> subscriptions;
  std::deque<std::pair<std::shared_ptr<Subscription>, std::shared_ptr<Event const>>> queue;
  Subscription const* delivering = nullptr;  // the subscription whose callback runs right now
  std::thread thread;
  std::thread::id threadId;
  bool running = false;   // a delivery thread runs its loop
  bool stopping = false;  // the running thread ends once the queue is empty
};

EventDispatcher::EventDispatcher() : shared_(std::make_shared<Shared>()) {}

EventDispatcher::~EventDispatcher() { stopThread(); }

void EventDispatcher::subscribe(foundation::storage::provider::StorageIRI const& iri, Segments keyPath, Scope scope,
                                std::vector<Kind> const& kinds, foundation::storage::events::Callback callback) {
  auto subscription = std::make_shared<Subscription>();
  subscription->iri = iri;
  subscription->keyPath = std::move(keyPath);
  subscription->scope = scope;
  subscription->kinds = kinds;
  subscription->callback = std::move(callback);
  std::lock_guard lock(shared_->mutex);
  shared_->subscriptions.push_back(std::move(subscription));
  subscriberCount_.store(shared_->subscriptions.size(), std::memory_order_release);
}

void EventDispatcher::unsubscribe(Segments const& keyPath) {
  std::vector<std::shared_ptr<Subscription>> dropped;  // released after the lock: callbacks may own the store
  std::unique_lock lock(shared_->mutex);
  auto& subs = shared_->subscriptions;
  for (auto it = subs.begin(); it != subs.end();) {
    if ((*it)->keyPath == keyPath) {
      (*it)->active = false;
      dropped.push_back(std::move(*it));
      it = subs.erase(it);
    } else {
      ++it;
    }
  }
  subscriberCount_.store(subs.size(), std::memory_order_release);
  if (std::this_thread::get_id() == shared_->threadId) return;
  shared_->changed.wait(lock, [&] {
    return std::none_of(dropped.begin(), dropped.end(),
                        [&](auto const& s) { return s.get() == shared_->delivering; });
  });
  lock.unlock();
}

void EventDispatcher::publish(Event const& event) {
  std::shared_ptr<Event const> shared;
  std::lock_guard lock(shared_->mutex);
  for (auto const& subscription : shared_->subscriptions) {
    if (!subscription->matches(event)) continue;
    if (!shared) shared = std::make_shared<Event const>(event);
    shared_->queue.emplace_back(subscription, shared);
  }
  if (!shared) return;
  if (!shared_->running) {
    // The previous thread, if any, has left its loop; reap it before starting anew.
    if (shared_->thread.joinable()) shared_->thread.join();
    shared_->stopping = false;
    shared_->thread = std::thread(&EventDispatcher::deliveryLoop, shared_);
    shared_->threadId = shared_->thread.get_id();
    shared_->running = true;
  }
  shared_->changed.notify_all();
}

void EventDispatcher::waitUntilDelivered() {
  std::unique_lock lock(shared_->mutex);
  if (std::this_thread::get_id() == shared_->threadId) return;
  shared_->changed.wait(lock, [&] { return shared_->queue.empty() && shared_->delivering == nullptr; });
}

void EventDispatcher::shutdown() {
  stopThread();
  std::vector<std::shared_ptr<Subscription>> dropped;  // released after the lock
  std::lock_guard lock(shared_->mutex);
  for (auto& s : shared_->subscriptions) s->active = false;
  dropped.swap(shared_->subscriptions);
  subscriberCount_.store(0, std::memory_order_release);
}

void EventDispatcher::stopThread() {
  std::thread thread;
  {
    std::lock_guard lock(shared_->mutex);
    shared_->stopping = true;
    shared_->changed.notify_all();
    thread = std::move(shared_->thread);
  }
  if (!thread.joinable()) return;
  if (thread.get_id() == std::this_thread::get_id()) {
    thread.detach();  // called from a callback: the loop ends by itself once the queue is empty
  } else {
    thread.join();
  }
}

void EventDispatcher::deliveryLoop(std::shared_ptr<Shared> shared) {
  for (;;) {
    std::shared_ptr<Subscription> subscription;
    std::shared_ptr<Event const> event;
    bool deliver = false;
    {
      std::unique_lock lock(shared->mutex);
      shared->changed.wait(lock, [&] { return !shared->queue.empty() || shared->stopping; });
      if (shared->queue.empty()) {
        shared->running = false;
        shared->threadId = {};
        shared->changed.notify_all();
        return;
      }
      subscription = std::move(shared->queue.front().first);
      event = std::move(shared->queue.front().second);
      shared->queue.pop_front();
      deliver = subscription->active;
      if (deliver) {
        shared->delivering = subscription.get();
      } else {
        shared->changed.notify_all();
      }
    }
    if (deliver) {
      try {
        subscription->callback(event->kind, subscription->iri, event->location, event->type, event->details);
      } catch (...) {
        // A subscriber's failure is its own; the store and the other subscribers go on.
      }
      std::lock_guard lock(shared->mutex);
      shared->delivering = nullptr;
      shared->changed.notify_all();
    }
    // `subscription` and `event` are released here, outside the lock: a callback may hold
    // the last reference to the store.
  }
}

}  // namespace providers::mem::detail
