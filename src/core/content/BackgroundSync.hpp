// BackgroundSync: the thread on which a working file entry makes its cache file durable
// after a read-only close, one sync at a time. Its mutex is a leaf. Thread-safe.
#pragma once

#include <core/content/FilesystemCacheResource.hpp>
#include <core/util/Mutex.hpp>

#include <memory>
#include <thread>

namespace storage::overlayprovider {

class BackgroundSync {
 public:
  using DurabilityHandle = FilesystemCacheResource::DurabilityHandle;

  BackgroundSync() = default;
  BackgroundSync(BackgroundSync const&) = delete;
  BackgroundSync& operator=(BackgroundSync const&) = delete;
  // Waits for the last sync.
  ~BackgroundSync();

  // Runs `durability` on a thread of its own after the sync before it has finished;
  // without a thread to be had, runs it here.
  void run(std::shared_ptr<DurabilityHandle> durability) EXCLUDES(mutex_);
  // Waits for the last sync, if any.
  void join() EXCLUDES(mutex_);

 private:
  std::thread thread_ GUARDED_BY(mutex_);  // the last sync
  mutable Mutex mutex_;
};

}  // namespace storage::overlayprovider
