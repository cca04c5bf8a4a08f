// WorkingFileEntryParams: the tuning values every working file entry is made with.
//
// The provider builds one set from its configuration (maximum read and write payload
// sizes, minimum queue item weight, persistence, disabling of the content cache,
// synchronous mode, and the wait-for-zero period from the environment) and the content
// cache copies it into each entry it makes.
//
// A plain value type: copyable, no lock; used only under its entry's mutex.
#pragma once

#include <chrono>
#include <cstdint>

namespace storage::overlayprovider {

// Whether an entry keeps its bytes in a cache file on local disk. The numbers are fixed:
// "on" is 0.
enum class DiskCaching : std::int32_t {
  Enabled = 0,
  Disabled = 1,
};

// Whether an entry's cache file is kept when the entry is disposed. The numbers are
// fixed: "on" is 0.
enum class Persist : std::int32_t {
  Yes = 0,
  No = 1,
};

class WorkingFileEntryParams {
 public:
  // How long a read waits for pending write-behind of its file when nothing else is said.
  static constexpr std::chrono::milliseconds kDefaultWaitForZeroPeriod{2000};

  // The given payload sizes; disk caching enabled, not persistent, minimum item weight
  // 0.0, not synchronous, the default wait-for-zero period.
  WorkingFileEntryParams(unsigned long long maxReadPayloadSize, unsigned long long maxWritePayloadSize);

  // Fluent setters; each returns this object so that calls chain.
  WorkingFileEntryParams& withMaxReadPayloadSize(unsigned long long size);
  WorkingFileEntryParams& withMaxWritePayloadSize(unsigned long long size);
  WorkingFileEntryParams& withDiskCaching(DiskCaching diskCaching);
  // true stores DiskCaching::Enabled, false DiskCaching::Disabled.
  WorkingFileEntryParams& withDiskCaching(bool enabled);
  WorkingFileEntryParams& withPersist(Persist persist);
  // true stores Persist::Yes, false Persist::No.
  WorkingFileEntryParams& withPersist(bool persist);
  WorkingFileEntryParams& withMinItemWeight(double weight);
  WorkingFileEntryParams& withSynchronous(bool synchronous);
  WorkingFileEntryParams& withWaitForZeroPeriod(std::chrono::milliseconds period);

  // Largest number of bytes fetched from the inner store in one read transaction.
  unsigned long long getMaxReadPayloadSize() const { return maxReadPayloadSize_; }
  // Capacity of a write buffer, hence the largest write-behind payload.
  unsigned long long getMaxWritePayloadSize() const { return maxWritePayloadSize_; }
  // True exactly when disk caching is DiskCaching::Enabled.
  bool usesDiskCaching() const { return diskCaching_ == DiskCaching::Enabled; }
  // True exactly when persistence is Persist::Yes.
  bool isPersistent() const { return persist_ == Persist::Yes; }
  // The least weight given to a queued transaction of the entry.
  double getMinItemWeight() const { return minItemWeight_; }
  // True if backend transactions run inline instead of being queued.
  bool isSynchronous() const { return synchronous_; }
  // The longest wait of a read that needs the store for the file's pending writes to
  // reach it; 0 or less: no wait.
  std::chrono::milliseconds getWaitForZeroPeriod() const { return waitForZeroPeriod_; }

 private:
  unsigned long long maxReadPayloadSize_;
  unsigned long long maxWritePayloadSize_;
  DiskCaching diskCaching_ = DiskCaching::Enabled;
  Persist persist_ = Persist::No;
  double minItemWeight_ = 0.0;
  bool synchronous_ = false;
  std::chrono::milliseconds waitForZeroPeriod_ = kDefaultWaitForZeroPeriod;
};

}  // namespace storage::overlayprovider
