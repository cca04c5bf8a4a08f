// InnerStream: a working file entry's handle on the inner store's open stream.
//
// The entry numbers its opens (generations). An open claims the stream; closing for an
// open leaves the stream alone once a later open has claimed it, and an open that runs
// after its callers have all closed it opens nothing. Every use of the stream is under
// this object's mutex, which is below the entry's mutex_ and takes no other lock while
// held. Thread-safe.
#pragma once

#include <core/util/Mutex.hpp>

#include <foundation/storage/provider/ByteStream.hpp>
#include <foundation/storage/provider/StorageIRI.hpp>
#include <foundation/storage/provider/StorageItem.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <cstdint>
#include <functional>
#include <ios>
#include <optional>
#include <memory>
#include <vector>

namespace storage::overlayprovider {

class InnerStream {
 public:
  using ByteStreamPtr = std::shared_ptr<foundation::storage::provider::ByteStream>;

  // The body of an open transaction: reuses or (re)opens the stream of `location`'s
  // path on `innerItem`'s provider and marks it as claimed by open number `generation`.
  // Reuses an open stream unless it opens for writing and that stream is read-only or
  // `options` ask for truncation; then it closes that stream (failures logged) and opens
  // a new one. Opens nothing when the callers of that open have all closed it already.
  // A read-only open releases the mutex while the store opens the file, and closes what
  // it opened when its callers closed meanwhile or a later open took over. Returns the
  // stream held afterwards (may be null); passes on the store's open failure.
  ByteStreamPtr open(foundation::storage::provider::StorageItem const& innerItem,
                     foundation::storage::provider::StorageIRI const& location, bool forWriting,
                     foundation::storage::provider::ByteStreamOpenOptions const& options, std::uint64_t generation)
      EXCLUDES(mutex_);

  // Seeks to `position` and reads up to `count` bytes. Returns the number read, 0 at the
  // end of the inner file. Throws Exception(TransientFailure, location) when no stream is
  // open, and what the stream throws.
  std::streamsize read(foundation::storage::provider::StorageIRI const& location, std::streampos position,
                       char* buffer, std::streamsize count) EXCLUDES(mutex_);

  // Seeks to `position` and writes all of `bytes`. Throws Exception(TransientFailure,
  // location) when no stream is open or it writes nothing, and what the stream throws.
  void write(foundation::storage::provider::StorageIRI const& location, std::streampos position,
             std::vector<char> const& bytes) EXCLUDES(mutex_);

  // After a payload failed for good: closes the stream (a failure logged as detail only)
  // and drops it.
  void dropAfterFailedWrite() EXCLUDES(mutex_);

  // Records that the callers of opens up to `generation` have closed, then closes and
  // drops the stream unless an open after `generation` has claimed it. A failing close
  // still drops the stream; `onFailure` is then called in the catch block, with the
  // mutex held. With `time`, a stream that can (IClosesWithTime) sets the file's
  // modification time in its close; returns whether it did (false: the caller sets it).
  bool closeUnlessReclaimed(std::uint64_t generation, std::function<void()> const& onFailure,
                            std::optional<boost::posix_time::ptime> const& time = std::nullopt) EXCLUDES(mutex_);

 private:
  // Closes and drops the stream, whoever claimed it; close failures are logged.
  void closeQuietly() REQUIRES(mutex_);

  // Empty until opened. The analysis checks the pointer; every use of the stream it
  // points to is under mutex_ too.
  ByteStreamPtr stream_ GUARDED_BY(mutex_);
  bool writable_ GUARDED_BY(mutex_) = false;
  // The open that last claimed stream_.
  std::uint64_t streamGeneration_ GUARDED_BY(mutex_) = 0;
  // Opens up to this one were closed by their last caller stream.
  std::uint64_t closedGeneration_ GUARDED_BY(mutex_) = 0;
  mutable Mutex mutex_;
};

}  // namespace storage::overlayprovider
