// Where log records go and which are written.
//
// The process has one main sink, a text sink writing lines of the form
//   2024-05-01T12:00:00.123456Z [error] storage::overlayprovider: message
// (UTC time, severity word, channel, message) to stderr or to a file, and writing only
// records at or above its threshold. Until configured otherwise it is set up from the
// environment, once, on the first use of any logger (or of any function below):
//   OVERLAY_LOG        a file path (appended to), or "stderr"; unset or empty: stderr
//   OVERLAY_LOG_LEVEL  the lowest severity number written, in decimal; unset or not a
//                      number: 512 (failures only)
// All functions here are thread-safe.
#pragma once

#include <string>

namespace foundation::log {

// Severity written by default: failures only.
inline constexpr unsigned kDefaultThreshold = 512;

// Replaces the main sink: `target` is a file path (opened for appending), or "stderr"
// (an empty target means stderr too);
// `threshold` is the lowest severity written. Throws std::runtime_error, leaving the
// previous sink in place, if the file cannot be opened. After an explicit call the
// automatic set-up from the environment no longer happens.
void configure(std::string const& target, unsigned threshold);

// Reads OVERLAY_LOG and OVERLAY_LOG_LEVEL and calls `configure` with them. A log file
// that cannot be opened falls back to stderr, and that fact is logged as a failure.
// Never throws.
void configureFromEnvironment();

// The main sink's threshold, changeable at run time. Takes effect for the next record.
void setThreshold(unsigned threshold);
unsigned threshold();

}  // namespace foundation::log
