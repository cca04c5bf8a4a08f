// The overlay's configuration keys and the values each can work with.
//
// doConfigure reads the keys; hosts (ovl) check a configuration with the same rules
// before they hand it over, so that a value the overlay cannot work with is refused
// before anything runs.
#pragma once

#include <string>
#include <vector>

namespace storage::overlayprovider {

// Every "overlay.*" key the overlay reads, in the order it reads them.
std::vector<std::string> const& overlayOptionKeys();

// Throws std::invalid_argument, with a text that names `key` and `text` and says what is
// wanted, when `text` is not a value of `key` that the overlay can work with: a number
// that does not parse, a weight that is negative or not finite, a payload size that is
// not a whole number above 0. Keys it does not know, and texts of keys that take any
// text, pass.
void checkOverlayOption(std::string const& key, std::string const& text);

}  // namespace storage::overlayprovider
