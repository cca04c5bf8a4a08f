// Internal to the logging library: the cheap test behind isEnabled().
#pragma once

#include <atomic>

namespace foundation::log::detail {

// The lowest severity any installed sink writes: the minimum of the main sink's
// threshold and those of installed memory sinks. Written under the log core's mutex,
// read without it (relaxed: a record racing a threshold change may go either way).
extern std::atomic<unsigned> g_enabledFrom;

// Runs the automatic set-up from the environment unless it (or an explicit
// configuration) already happened. Thread-safe.
void ensureConfigured();

}  // namespace foundation::log::detail
