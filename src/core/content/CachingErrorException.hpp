// CachingErrorException: the content cache could not make or keep a local copy of a file.
//
// Thrown only by ContentCache, with one of two texts: "Problem initializing cache root."
// (the data directory or the space arbitrator could not be set up; the next operation
// tries again) and "Caching failed due to an unknown error." (no working entry could be
// made, whatever the cause; the cause itself is in the log). A caller that catches it
// serves the file from the inner store instead.
#pragma once

#include <stdexcept>

namespace storage::overlayprovider {

class CachingErrorException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace storage::overlayprovider
