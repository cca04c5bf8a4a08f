// S3Poller: change events for an S3 store, found by listing subscribed folders again.
//
// S3 servers do not all notify, so every `interval` (or at once after pollNow()) the
// poller lists each subscribed folder (the whole tree below it for recursive
// subscriptions) and compares the listing with the one before: a new key is Added, a key
// whose ETag or size changed Modified, a key gone Removed (folders, marked or implied by
// the keys below them, as folders). The first listing is taken when the subscription is
// made, so only changes after that are published. A listing that fails is logged and
// tried again at the next round; the snapshot stays as it was.
//
// Callbacks run on the poller's thread, one at a time. unsubscribe() returns only when no
// callback of that subscription runs any more, except when called from a callback itself.
//
// Thread-safe.
#pragma once

#include "S3Objects.hpp"

#include <foundation/storage/events/Events.hpp>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <optional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace providers::s3::detail {

namespace se = foundation::storage::events;

class S3Poller {
 public:
  // `objects` gives the client to use at each round (the store may be reconfigured).
  explicit S3Poller(std::function<S3Objects()> objects, std::chrono::milliseconds interval);
  ~S3Poller();

  // Publishes changes below the folder `iri` (key prefix `prefix`, "" for the bucket's
  // root) to `callback`. `onlyName`: publish only changes of that child (a file
  // subscription). Throws what the first listing throws.
  // Changed items are named below `base` (the folder listed, the subscribed IRI itself
  // unless this is a file subscription).
  void subscribe(sp::StorageIRI const& iri, sp::StorageIRI const& base, std::string const& prefix, bool recursive,
                 std::vector<se::Kind> kinds,
                 se::Callback callback, std::optional<std::string> onlyName = std::nullopt);
  void unsubscribe(sp::StorageIRI const& iri);
  // Runs one round now and returns when it is done.
  void pollNow();
  void setInterval(std::chrono::milliseconds interval);
  // Ends the thread and every subscription. Idempotent.
  void stop();

 private:
  struct Entry {
    bool folder = false;
    std::string signature;  // ETag and size of a file
  };
  using Snapshot = std::map<std::string, Entry>;  // by path relative to the folder
  struct Subscription {
    sp::StorageIRI iri;
    sp::StorageIRI base;
    std::string prefix;
    bool recursive = false;
    std::vector<se::Kind> kinds;
    se::Callback callback;
    std::optional<std::string> onlyName;
    Snapshot snapshot;
  };

  Snapshot take(Subscription const& subscription, S3Objects const& objects) const;
  void round();
  void run();

  std::function<S3Objects()> const objects_;
  std::mutex mutex_;  // guards the members below
  std::condition_variable wake_;
  std::chrono::milliseconds interval_;
  std::vector<std::shared_ptr<Subscription>> subscriptions_;
  std::thread thread_;
  bool stopping_ = false;
  std::uint64_t requested_ = 0;  // pollNow() calls so far
  std::uint64_t done_ = 0;       // rounds answered for them
  // Held while a round lists and delivers, so that unsubscribe() can wait for it.
  std::mutex roundMutex_;
  std::atomic<std::thread::id> roundThread_{};
};

}  // namespace providers::s3::detail
