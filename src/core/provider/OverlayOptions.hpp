// OverlayOptions: every setting of the overlay in one place, each with its default and
// its conversion: the "overlay.*" keys of the configuration and the QV_OVERLAY_*
// environment variables.
//
// doConfigure reads the keys (readConfiguration); a provider reads the environment once,
// at its first operation (fromEnvironment), unless it was given the values. Hosts (ovl)
// check a configuration with the same rules before they hand it over, so that a value
// the overlay cannot work with is refused before anything runs.
//
// A plain value type: copyable, no lock.
#pragma once

#include <core/content/WorkingFileEntryParams.hpp>
#include <core/exec/TimedLatch.hpp>

#include <boost/property_tree/ptree_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace storage::overlayprovider {

// One "overlay.*" key.
struct OverlayOptionKey {
  char const* name;      // "overlay.maxQueueWeight"
  char const* loggedAs;  // the name doConfigure logs an accepted text under, or null
};

struct OverlayOptions {
  static constexpr std::int64_t kDefaultPayloadSize = 4194304;

  // The keys, in the order doConfigure reads them. A key that is absent leaves its field
  // as it is, and so does a flag key whose text is not a true value.
  // "overlay.cacheRoot": text, as a native path; none: the content cache's own root.
  std::optional<std::filesystem::path> cacheRoot;
  double maxQueueWeight = 0;      // "overlay.maxQueueWeight", std::stod; 0: no bound
  double minQueueItemWeight = 0;  // "overlay.minQueueItemWeight", std::stod
  bool persistContentCache = false;  // "overlay.persistContentCache": "true" or "1"
  std::int64_t maxReadPayloadSize = kDefaultPayloadSize;   // "overlay.maxReadPayloadSize", std::stol
  std::int64_t maxWritePayloadSize = kDefaultPayloadSize;  // "overlay.maxWritePayloadSize", std::stol
  // "overlay.transfers", std::stol: how many changes travel to the store at once; 1 keeps
  // the single-worker queue. Taken when the queue is made, at the first operation.
  std::int64_t transfers = 1;
  // "overlay.echoWindow", std::stol, milliseconds >= 0: a store event that says what one
  // of the overlay's own folder creations, removals or moves made at most this long
  // before is taken as its echo and changes nothing (OwnChanges); 0: every event counts.
  // Taken at the first operation.
  std::int64_t echoWindowMs = 0;
  // "overlay.narrowInvalidation": "true" (boolalpha) switches it on: a store event drops only the
  // listings it can have made stale (EventListener), not the whole tree of the folder
  // above the changed item. Taken at the first operation.
  bool narrowInvalidation = false;
  // "overlay.holdEventsForChangesOnly": "true" (boolalpha) switches it on: only the
  // overlay's changes hold the store's events back (the timed latch); reads, listings and
  // storage queries do not, since they make no echoes.
  bool holdEventsForChangesOnly = false;
  bool synchronous = false;              // "overlay.synchronous": "true" (boolalpha)
  bool disableContentCache = false;      // "overlay.disableContentCache": likewise
  bool backslashToForwardSlash = false;  // "overlay.backslashToForwardSlash": likewise; no effect

  // The environment variables; numbers are converted with atol ("abc" reads as 0).
  // QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT: the latch's time-out.
  std::chrono::milliseconds eventRobustnessTimeout = TimedLatch::kDefaultTimeout;
  // QV_OVERLAY_WAIT_FOR_ZERO_PERIOD: how long a read waits for pending writes; 0: no wait.
  std::chrono::milliseconds waitForZeroPeriod = WorkingFileEntryParams::kDefaultWaitForZeroPeriod;
  // QV_OVERLAY_DISABLE_QUEUE_METRICS_CAPTURE: off only when it is exactly "true".
  bool captureQueueMetrics = true;

  // The defaults, with the environment's values for the variables that are set.
  static OverlayOptions fromEnvironment();

  // Reads the keys present in `config`, in the order above, storing each at once and then
  // calling `applied(key, text)`. Throws what a conversion throws (std::invalid_argument,
  // std::out_of_range, a text that is not UTF-8) or what `applied` throws; the keys read
  // before stay stored and later keys are not read.
  void readConfiguration(boost::property_tree::ptree const& config,
                         std::function<void(OverlayOptionKey const&, std::string const& text)> const& applied);
};

// Every "overlay.*" key the overlay reads, in the order it reads them.
std::vector<std::string> const& overlayOptionKeys();

// The environment variables the overlay reads.
std::vector<std::string> const& overlayEnvironmentVariables();

// Throws std::invalid_argument, with a text that names `key` and `text` and says what is
// wanted, when `text` is not a value of `key` that the overlay can work with: a number
// that does not parse, a weight that is negative or not finite, a payload size that is
// not a whole number above 0, a transfer count below 1. Keys it does not know, and texts of keys that take any
// text, pass.
void checkOverlayOption(std::string const& key, std::string const& text);

// What doConfigure refuses before it reads any key: the same exception for a value that
// converts but cannot be worked with (a payload size or transfer count of 0 or less, a weight that is not a
// finite number >= 0). A value that does not convert passes (reading it fails later), and
// so does a negative "overlay.maxQueueWeight" (doConfigure throws its own error for it).
void refuseUnworkableOverlayOptions(boost::property_tree::ptree const& config);

}  // namespace storage::overlayprovider
