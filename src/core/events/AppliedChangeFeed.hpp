// AppliedChangeFeed: where the event listener tells the provider's host that it has acted
// on a change made elsewhere (the provider's IAppliedChanges).
//
// One callback at a time, set by the host whenever it likes; the listener's queued tasks
// call notify() once the caches no longer answer with the item as it was. Thread-safe:
// the callback is copied under the mutex and called without it, so a callback may take
// its time or set another callback.
#pragma once

#include <foundation/storage/provider/extensions/IAppliedChanges.hpp>

#include <mutex>
#include <utility>

namespace storage::overlayprovider {

class AppliedChangeFeed {
 public:
  using Callback = foundation::storage::provider::extensions::IAppliedChanges::Callback;

  void set(Callback callback) {
    std::lock_guard lock(mutex_);
    callback_ = std::move(callback);
  }

  void notify(foundation::storage::provider::StorageIRI const& location) const {
    Callback callback;
    {
      std::lock_guard lock(mutex_);
      callback = callback_;
    }
    if (callback) callback(location);
  }

 private:
  mutable std::mutex mutex_;  // guards callback_
  Callback callback_;
};

}  // namespace storage::overlayprovider
