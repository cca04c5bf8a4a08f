// The overlay's configuration as ovl takes it: a JSON file and KEY=VALUE settings, checked
// before any store is touched.
#pragma once

#include <boost/property_tree/ptree.hpp>

#include <optional>
#include <string>
#include <vector>

namespace ovl {

// The keys the overlay reads, "overlay.cacheRoot" ... (help and README list them).
std::vector<std::string> const& overlayKeys();
// The environment variables the overlay reads, "QV_OVERLAY_EVENT_ROBUSTNESS_TIMEOUT" ...
std::vector<std::string> const& overlayVariables();

// The tree handed to every overlay: the keys of the JSON file `file` (when given), then
// `settings` ("KEY=VALUE") in order, a later value replacing an earlier one. The file may
// nest keys ({"overlay": {"cacheRoot": "/x"}}) or write them whole ({"overlay.cacheRoot":
// "/x"}); every value is kept as text, as the overlay reads it. Keys outside "overlay."
// pass through to the store below. Throws CommandError naming the file for a file that
// cannot be read or is not a JSON object, and for an "overlay." key the overlay does not
// know; UsageError for such a key in `settings`.
boost::property_tree::ptree loadConfig(std::optional<std::string> const& file, std::vector<std::string> const& settings);

// Checks that the cache root the configuration names (if any) is a folder ovl can create
// files in, making it when missing. Throws CommandError naming the folder and the cause.
void checkCacheRoot(boost::property_tree::ptree const& config);

}  // namespace ovl
