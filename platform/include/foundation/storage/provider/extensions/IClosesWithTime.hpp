// A write stream whose close can also leave the file with a given modification time, so
// that a writer that sets the time right after closing (the overlay keeps the time its
// callers saw) does it in the same step instead of one more call to the store.
#pragma once

#include <boost/date_time/posix_time/ptime.hpp>

namespace foundation::storage::provider::extensions {

class IClosesWithTime {
 public:
  virtual ~IClosesWithTime() = default;

  // Closes the stream as close() does (and throws what close() throws) and, when it
  // returns true, the file's modification time is `time`, as setLastModified would
  // leave it. False: the stream is closed but the time was not set (the caller sets it
  // itself). `time` must be a point in time (not special).
  virtual bool closeWithTime(boost::posix_time::ptime const& time) = 0;
};

}  // namespace foundation::storage::provider::extensions
