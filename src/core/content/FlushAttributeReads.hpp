// FlushAttributeReads: the reads of files' extended attributes that close transactions
// leave out while the provider flushes (doc/design.md, "The flush"). A flush calls
// beginWaiting() before it waits for its queue and endWaiting() once the queue has
// drained; a close transaction running in between hands its read to defer() instead of
// making it. The flush then either drops every record of both caches (the reads are
// forgotten: nothing could show what they would have read) or keeps the caches and makes
// the reads itself before it returns. Thread-safe.
#pragma once

#include <core/util/Mutex.hpp>

#include <functional>
#include <vector>

namespace storage::overlayprovider {

class FlushAttributeReads {
 public:
  using Read = std::function<void()>;

  void beginWaiting();
  // Keeps `read` and returns true while a flush waits; returns false (the caller makes the
  // read) otherwise.
  bool defer(Read read);
  // Ends one flush's wait and hands it the reads deferred so far; those deferred later
  // belong to a flush still waiting, if any.
  std::vector<Read> endWaiting();

 private:
  Mutex mutex_;
  int waiting_ GUARDED_BY(mutex_) = 0;
  std::vector<Read> deferred_ GUARDED_BY(mutex_);
};

}  // namespace storage::overlayprovider
