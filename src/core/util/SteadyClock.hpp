// An injectable source of monotonic time.
//
// Bookkeeping times (queue times, busy periods, the period of the queue statistics
// report, the last activity time of an executor) are read through a `SteadyClockSource`
// instead of calling std::chrono::steady_clock::now() directly, so that tests can move
// time forward by hand and never depend on how fast the machine is.
#pragma once

#include <chrono>
#include <functional>

namespace storage::overlayprovider {

// Returns the current steady-clock time. Must be callable from any thread and must not
// throw. Values are expected never to decrease.
using SteadyClockSource = std::function<std::chrono::steady_clock::time_point()>;

// The real clock: std::chrono::steady_clock::now().
inline std::chrono::steady_clock::time_point steadyNow() noexcept { return std::chrono::steady_clock::now(); }

}  // namespace storage::overlayprovider
