// IntegrityInfo: how much of a requested byte range a cache resource holds.
#pragma once

#include <cstdint>
#include <ios>
#include <optional>
#include <utility>

namespace storage::overlayprovider {

// The numbers are fixed.
enum class IntegrityStatus : std::int32_t {
  Complete = 0,  // every requested byte is cached
  Absent = 1,    // the first requested byte is not cached
  Partial = 2,   // the first byte is cached, but not the whole request
  Uncached = 3,  // the resource keeps no content at all (disk caching off)
};

struct IntegrityInfo {
  IntegrityStatus status = IntegrityStatus::Absent;
  // Present only with Partial: the bytes in [first, second) must be fetched from the
  // inner store. `first` is the end of the cached run that holds the requested start;
  // `second` is the start of the cached run that holds the request's end, or the
  // request's end when that is not cached at all. Cached runs lying wholly inside the
  // span are fetched again, by design, rather than split into several fetches.
  std::optional<std::pair<std::streampos, std::streampos>> missingRange;
};

}  // namespace storage::overlayprovider
