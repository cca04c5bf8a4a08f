// Internal to the logging library: bookkeeping of the thresholds of installed sinks.
#pragma once

namespace foundation::log::detail {

// A memory sink with `threshold` was installed / is about to be removed: recompute what
// loggers report as enabled. Thread-safe.
void addMemoryThreshold(unsigned threshold);
void removeMemoryThreshold(unsigned threshold);

}  // namespace foundation::log::detail
