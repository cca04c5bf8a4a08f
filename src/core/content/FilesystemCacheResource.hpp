// FilesystemCacheResource: the cache file of one overlay file on local disk, plus the
// record of which byte runs of it hold valid content.
//
// The cache file is <data directory>/<detail::computeHashForIRI(location)>.cache. It is
// opened lazily by the first read, write or seek, released by close() and may be
// reopened later. It outlives the resource: only remove() (invalidation, eviction,
// staleness) deletes it, and a later resource for the same location adopts a file it
// finds as wholly valid unless the file is older than the metadata says the content is.
//
// Valid runs ("cached runs") map a start offset to an end offset (exclusive). Each
// insertion merges the new run with the runs it touches or overlaps. A write that starts
// inside an existing run only extends that run's end and merges nothing; the extended
// run may then overlap its successors. That early stop is deliberate; lookups tolerate
// it because they always take the first run, in ascending order of start, that
// contains a position.
//
// Failures on local disk are logged and swallowed. Each produces two records on the
// plug-in's logger: a one-line JSON object {"overlay":{"<error|debug>":{"message":...,
// "location":..., "checkoutPath":...}}} at Error (or Debug) severity, then
// "Exception caught: <description>" at Diagnostic severity. Messages:
//   first constructor           "Failure in checking file existence"   (no cached runs)
//   copying constructor, write  "Failure in local cache writing"       (copy: no runs;
//                                write: cacheWriteErrored() for good, reads return 0)
//   setLocation                 "Failure in moving cached item"        (new location and
//                                path adopted anyway)
//   read                        "Failure in local cache reading"       (returns 0)
//   remove                      "Function doRemove failed", Debug      (runs kept)
//   flush                       nothing logged, failure ignored
// Only seek() and getFileDevice() throw to the caller (an unopenable cache file:
// std::runtime_error "Bad file descriptor").
//
// Times compare in whole seconds since 1970-01-01 UTC; the special values clamp:
// not-a-date-time and minus infinity to kMinEpochSeconds, plus infinity to
// kMaxEpochSeconds.
//
// Thread-safety: no lock of its own. The owning working file entry serialises every
// call under its mutex.
#pragma once

#include <core/content/CacheResource.hpp>
#include <core/content/DeliveryReport.hpp>
#include <core/metadata/FileMetadata.hpp>

#include <boost/iostreams/device/file_descriptor.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace storage::overlayprovider {

class FilesystemCacheResource final : public CacheResource {
 public:
  static constexpr std::int64_t kMinEpochSeconds = -9223372036854;
  static constexpr std::int64_t kMaxEpochSeconds = 9223372036854;

  // Whole seconds of `time` since 1970-01-01 (`time` taken as UTC), truncated toward
  // zero; the special values clamp as stated above.
  static std::int64_t toEpochSeconds(boost::posix_time::ptime time);

  // `cacheDirectory` joined with detail::computeHashForIRI(location) + ".cache".
  // Throws fl::i18n::internal_runtime_error for a location with an unpaired surrogate.
  static fl::filesystem::path checkoutPathFor(fl::filesystem::path const& cacheDirectory,
                                              foundation::storage::provider::StorageIRI const& location);

  // A resource for `metadata`'s file in `cacheDirectory` (the data directory). Takes the
  // location and last-modified time from `metadata`, then removes a stale cache file
  // (checkAndRemoveStaleEntry), then adopts a cache file that is still there (left by
  // an earlier run under a persistent cache root) as wholly valid: one run
  // [0, metadata->getFileSize()). A failure while checking is logged as "Failure in
  // checking file existence" and leaves no runs. Throws std::invalid_argument for a null
  // `metadata`, and what checkoutPathFor throws.
  FilesystemCacheResource(std::shared_ptr<FileMetadata> const& metadata, fl::filesystem::path cacheDirectory);

  // A resource for `metadata`'s file whose content is a copy of the cache file at
  // `sourcePath` (the overlay copies a file whose content is cached). No stale check.
  // If `sourcePath` exists it is copied over this resource's cache file (replacing one
  // that is there) and recorded as one run [0, metadata->getFileSize()). A failure is
  // logged as "Failure in local cache writing" and leaves no runs. Throws as the first
  // constructor.
  FilesystemCacheResource(std::shared_ptr<FileMetadata> const& metadata, fl::filesystem::path cacheDirectory,
                          fl::filesystem::path const& sourcePath);

  FilesystemCacheResource(FilesystemCacheResource const&) = delete;
  FilesystemCacheResource& operator=(FilesystemCacheResource const&) = delete;

  // Removes the cache file and all runs (as remove()) if the expected last-modified time
  // is later, in whole seconds, than getCurrentLastModified(). Equal seconds are fresh.
  void checkAndRemoveStaleEntry();

  // Follows a move: computes the cache file path of `newLocation` in the same data
  // directory, removes a file that is there, and renames the current cache file (if it
  // exists) to it. Then, in every case, takes the new location and path; the runs stay,
  // since the bytes moved with the file. A move onto the current path touches no file;
  // when the new path cannot be computed the current path is kept.
  // A filesystem failure is logged ("Failure in moving cached item") and swallowed.
  void setLocation(foundation::storage::provider::StorageIRI newLocation) override;

  // fl::filesystem::exists(checkout path); false when that check fails.
  bool exists() const override;

  // The cache file's last write time (UTC); the current UTC time (microseconds) when the
  // file does not exist or cannot be queried.
  boost::posix_time::ptime getCurrentLastModified() const override;

  // Deletes the cache file if it exists and clears the runs. A failure is logged at Debug
  // severity ("Function doRemove failed") and keeps the runs.
  void remove() override;

  fl::filesystem::path getCheckoutPath() const override { return checkoutPath_; }

  // With end = start + count: Absent when no run holds `start`; otherwise, from the first
  // run that holds `start` onward, the first run R with R.start < end <= R.end decides:
  // the same run gives Complete, a later run Partial with missing range (first run's
  // end, R.start); no such run gives Partial with (first run's end, end).
  IntegrityInfo checkAndGetIntegrityInfo(std::streampos start, std::streamsize count) override;

  // 0 without touching the disk once a write has failed, or for a count below 1.
  // Otherwise reads up to `count` bytes at absolute `position` with one read call and
  // returns the number read, 0 at the end of the file. A failure is logged ("Failure in
  // local cache reading") and gives 0.
  std::streamsize read(std::streampos position, char* buffer, std::streamsize count) const override;

  // Writes at absolute `position` (opening the cache file if needed) and records the
  // bytes written as valid; a count below 1 records nothing. A failure is logged
  // ("Failure in local cache writing") and marks the resource write-errored for good.
  void write(std::streampos position, char const* data, std::streamsize count) override;

  // Seeks the cache file (opening it if needed); returns the new absolute position.
  // Throws what getFileDevice() throws and std::ios_base::failure from the seek.
  std::streampos seek(std::streampos position, std::ios_base::seekdir direction) override;

  // Closes the open cache file, if any, and drops the handle. A failing close is ignored.
  void close() override;

  // fsync()s the open cache file, if any, then sets the cache file's access and
  // modification times to `lastModified` in whole seconds (utime; special values clamp).
  // Failures are ignored silently.
  void flush(boost::posix_time::ptime lastModified) override;

  // A pending sync of the cache file, taken off the resource so that another thread can
  // make the content durable later (see stampAndTakeDurabilityHandle). It holds a descriptor
  // of its own (a duplicate), so closing, renaming or removing the cache file meanwhile
  // does not disturb it. Destroyed without run(), it only releases the descriptor.
  class DurabilityHandle {
   public:
    explicit DurabilityHandle(int descriptor) : descriptor_(descriptor) {}
    ~DurabilityHandle();
    DurabilityHandle(DurabilityHandle const&) = delete;
    DurabilityHandle& operator=(DurabilityHandle const&) = delete;
    // fdatasync()s the file: its bytes and what reading them back needs (size, blocks);
    // the times were stamped when the handle was taken. Failures are ignored, as flush()
    // ignores them. Once only; later calls do nothing.
    void run() noexcept;

   private:
    int descriptor_;  // -1 once run
  };

  // The second half of flush() alone: sets the cache file's access and modification
  // times to `lastModified` in whole seconds (utime); failures are ignored.
  void stampTimes(boost::posix_time::ptime lastModified) noexcept;

  // flush() in two halves, for a caller that must not wait for the disk: sets the cache
  // file's times as flush() does, now, and hands out the sync as a handle to run later.
  // The handle is null when there is nothing to make durable: no descriptor is open, or
  // nothing was stored through this resource since the last flush() or handle. The
  // content is durable once the handle has run; its times are those stamped here.
  // Failures are ignored silently (a failed duplicate gives a null handle).
  std::unique_ptr<DurabilityHandle> stampAndTakeDurabilityHandle(boost::posix_time::ptime lastModified);

  bool cacheWriteErrored() const override { return writeErrored_; }

  // The open cache file, opened now (read-write, created with mode 0700) if it is not
  // open yet. The descriptor closes when its last holder releases it or on close().
  // Throws std::runtime_error("Bad file descriptor") when the file cannot be opened.
  std::shared_ptr<boost::iostreams::file_descriptor> getFileDevice() const;

  foundation::storage::provider::StorageIRI const& getLocation() const { return location_; }
  boost::posix_time::ptime getExpectedLastModified() const { return expectedLastModified_; }
  fl::filesystem::path const& getCacheDirectory() const { return cacheDirectory_; }

  // The valid runs as (start offset, end offset) pairs, ascending by start. For
  // diagnostics and tests.
  std::vector<std::pair<std::streamoff, std::streamoff>> getCachedRuns() const;

 private:
  struct ByOffset {
    bool operator()(std::streampos const& a, std::streampos const& b) const {
      return std::streamoff(a) < std::streamoff(b);
    }
  };
  using Runs = std::map<std::streampos, std::streampos, ByOffset>;

  void doRemove();
  // Records [start, end) as valid (see the class comment for the early stop).
  void recordWrite(std::streampos start, std::streampos end);
  // Writes the two failure records for the exception being handled. Call only from a
  // catch block. Never throws.
  void logFailure(unsigned severity, char const* message) const noexcept;

 public:
  // Where failures (not the debug-level ones) are also reported; none by default. Call
  // before the resource is shared.
  void setDeliveryReport(std::shared_ptr<DeliveryReport> report) { deliveryReport_ = std::move(report); }

 private:
  std::shared_ptr<DeliveryReport> deliveryReport_;  // set before the resource is shared; may be null
  foundation::storage::provider::StorageIRI location_;
  boost::posix_time::ptime const expectedLastModified_;
  fl::filesystem::path const cacheDirectory_;
  fl::filesystem::path checkoutPath_;
  mutable std::shared_ptr<boost::iostreams::file_descriptor> fileDevice_;  // empty until needed
  bool writeErrored_ = false;
  // Bytes were stored (write, or the copy made at construction) since the last fsync or
  // handle: only then is there anything to make durable.
  bool unsynced_ = false;
  Runs cachedRanges_;
};

}  // namespace storage::overlayprovider
