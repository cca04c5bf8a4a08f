// LocalFSCacheSpaceArbitrator: the content cache's space rule for a local volume.
//
// The cache may add `bytes` bytes as long as, afterwards, at least 2 % of the volume's
// capacity would still be free:
//
//   usedPercent = 100.0 - ((available - bytes) / capacity) * 100.0   (floating point)
//   answer      = usedPercent <= 98.0
//
// where `available - bytes` is computed in unsigned 64-bit arithmetic first. When
// `bytes` exceeds `available` the difference wraps around to a huge value, usedPercent
// becomes hugely negative and the answer is yes. That wrap is kept on purpose: such a
// file is admitted, and a cache write that then finds the disk full fails on its own
// (logged, and the entry falls back to the inner store).
//
// The capacity is measured once, at construction; the free space is measured afresh on
// every question, so evictions need no bookkeeping here.
//
// The measurement is injectable: by default it is boost::filesystem::space; a test may
// pass a function that answers figures of its own.
//
// Thread-safety: no lock of its own; the content cache calls it under its mutex. The
// default measurement is safe to call from any thread.
#pragma once

#include <core/content/ICacheSpaceArbitrator.hpp>

#include <fl/filesystem.hpp>

#include <cstdint>
#include <functional>

namespace storage::overlayprovider {

class LocalFSCacheSpaceArbitrator final : public ICacheSpaceArbitrator {
 public:
  // Figures of one volume, in bytes.
  struct VolumeSpace {
    std::uint64_t capacity = 0;   // total size of the volume
    std::uint64_t available = 0;  // free space usable by this (unprivileged) process
  };

  // Measures the volume that holds a path. Throws when it cannot.
  using SpaceQuery = std::function<VolumeSpace(fl::filesystem::path const&)>;

  // The default measurement: boost::filesystem::space(p), taking its `capacity` and
  // `available` figures. Throws boost::filesystem::filesystem_error (naming the path)
  // when the volume cannot be measured, e.g. because `p` does not exist.
  static VolumeSpace measureVolume(fl::filesystem::path const& p);

  // Arbitrates for the volume that holds `path` (the cache's data directory), measuring
  // its capacity now with `query` (default: measureVolume). Throws what `query` throws;
  // std::invalid_argument if `query` is empty.
  explicit LocalFSCacheSpaceArbitrator(fl::filesystem::path path, SpaceQuery query = measureVolume);

  // The rule above, with the volume measured again now. Throws what the measurement
  // throws.
  bool spaceAvailable(unsigned long bytes) const override;

  // Does nothing: free space is measured on each question.
  void setItemWasRemoved() override;

  fl::filesystem::path const& getPath() const { return path_; }
  // The capacity measured at construction.
  std::uint64_t getCapacity() const { return capacity_; }

 private:
  fl::filesystem::path const path_;
  SpaceQuery const query_;
  std::uint64_t const capacity_;
};

}  // namespace storage::overlayprovider
