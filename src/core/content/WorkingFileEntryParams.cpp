#include <core/content/WorkingFileEntryParams.hpp>

namespace storage::overlayprovider {

WorkingFileEntryParams::WorkingFileEntryParams(unsigned long long maxReadPayloadSize,
                                               unsigned long long maxWritePayloadSize)
    : maxReadPayloadSize_(maxReadPayloadSize), maxWritePayloadSize_(maxWritePayloadSize) {}

WorkingFileEntryParams& WorkingFileEntryParams::withMaxReadPayloadSize(unsigned long long size) {
  maxReadPayloadSize_ = size;
  return *this;
}

WorkingFileEntryParams& WorkingFileEntryParams::withMaxWritePayloadSize(unsigned long long size) {
  maxWritePayloadSize_ = size;
  return *this;
}

WorkingFileEntryParams& WorkingFileEntryParams::withDiskCaching(DiskCaching diskCaching) {
  diskCaching_ = diskCaching;
  return *this;
}

WorkingFileEntryParams& WorkingFileEntryParams::withDiskCaching(bool enabled) {
  return withDiskCaching(enabled ? DiskCaching::Enabled : DiskCaching::Disabled);
}

WorkingFileEntryParams& WorkingFileEntryParams::withPersist(Persist persist) {
  persist_ = persist;
  return *this;
}

WorkingFileEntryParams& WorkingFileEntryParams::withPersist(bool persist) {
  return withPersist(persist ? Persist::Yes : Persist::No);
}

WorkingFileEntryParams& WorkingFileEntryParams::withMinItemWeight(double weight) {
  minItemWeight_ = weight;
  return *this;
}

WorkingFileEntryParams& WorkingFileEntryParams::withSynchronous(bool synchronous) {
  synchronous_ = synchronous;
  return *this;
}

WorkingFileEntryParams& WorkingFileEntryParams::withWaitForZeroPeriod(std::chrono::milliseconds period) {
  waitForZeroPeriod_ = period;
  return *this;
}

}  // namespace storage::overlayprovider
