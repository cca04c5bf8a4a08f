// ICacheSpaceArbitrator: decides whether the disk that holds the content cache may take
// more bytes.
//
// The content cache owns exactly one arbitrator and asks it before making a new working
// entry; while the answer is no it evicts its least recently accessed entry and asks
// again, telling the arbitrator after each eviction.
//
// Thread-safety: implementations need not lock; the content cache calls them only with
// its own mutex held.
#pragma once

namespace storage::overlayprovider {

class ICacheSpaceArbitrator {
 public:
  virtual ~ICacheSpaceArbitrator() = default;

  // True if the cache may grow by `bytes` bytes. May throw when the disk cannot be
  // measured; the caller treats that as a caching failure.
  virtual bool spaceAvailable(unsigned long bytes) const = 0;

  // Notification that the cache has just deleted one of its items.
  virtual void setItemWasRemoved() = 0;
};

}  // namespace storage::overlayprovider
